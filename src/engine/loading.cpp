// Loading: reading the storage file back into memory blocks, from where the index file allows.
#include <new>

#include "engine/index_test.h"
#include "engine/repl_storage.h"
#include "support/log.h"
#include "support/memory_path.h"
#include "support/params.h"

namespace k9erepl {

std::uint32_t CK9eReplStorage::Load() {
    const Guard guard(m_lock);
    if (State() == StorageState::kBroken) {
        return RC_WRONG_STATE;
    }
    if (IsReadOnly()) {
        return LoadLive();
    }
    // A storage whose flush failed has records in memory that the file has not: reading the file
    // over them would lose those.
    if (State() != StorageState::kClosed) {
        return RC_ALREADY;
    }
    u32 rc = RC_NO_MEMORY;
    try {
        rc = LoadLocked();
    } catch (const std::bad_alloc&) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to load, out of memory;conn-str %s",
                       m_connStr.c_str());
    }
    if (rc != RC_OK) {
        AbandonLoad();
    }
    return rc;
}

// A load that failed half-way may be tried again: nothing of it stays.
void CK9eReplStorage::AbandonLoad() {
    if (m_index != nullptr) {
        m_index->Stop();
    }
    m_blocks.EraseAll();
    m_nextRev = 1;
    m_oldestRev = 0;
    m_flushedRev = 0;
    m_beginMoved = false;
    SetState(StorageState::kClosed);
}

u32 CK9eReplStorage::LoadLocked() {
    m_oldestRev = 0;
    m_flushedRev = 0;
    IndexFileContent index;
    if (const std::string path = IndexFileName(m_connStr.c_str()); !path.empty()) {
        // Whatever is wrong with it was logged: loading goes on without it.
        ReadIndexFile(path, &index);
    }
    LoadPlan plan;
    const u32 rc = LoadOnce(index, &plan);
    // The index may be what is wrong, not the file. When the system fails, another try would
    // only read more.
    if (rc == RC_OK || rc == RC_SYSTEM_ERROR || rc == RC_NO_MEMORY || rc == kContentChanged ||
        !plan.UsesIndex()) {
        return rc;
    }
    LOG_WARNING(kLogStorage, "Load with the index failed; loading without it;code %u", rc);
    AbandonLoad();
    return LoadOnce(IndexFileContent{}, &plan);
}

// *plan receives what was read; it uses the index unless that was dropped on the way.
u32 CK9eReplStorage::LoadOnce(const IndexFileContent& index, LoadPlan* plan) {
    *plan = LoadPlan{};
    return m_solid.IsOpen() ? LoadFromOpenFile(index, plan) : LoadWithoutOpenFile(index, plan);
}

u32 CK9eReplStorage::LoadWithoutOpenFile(const IndexFileContent& index, LoadPlan* plan) {
    const char* connStr = m_connStr.c_str();
    std::string path;
    GetParam(connStr, "file", path);
    if (path.empty()) {
        LOG_ERROR_CODE(RC_INVALID_ARG, kLogStorage,
                       "Failed to get file parameter value to load data;conn-str %s", connStr);
        return RC_INVALID_ARG;
    }
    if (IsMemoryPath(path)) {
        if (u32 rc = Truncate(); rc != RC_OK) {
            LOG_ERROR_CODE(rc, kLogStorage, "Failed to truncate storage;conn-str %s", connStr);
            return rc;
        }
        return FinishLoad(0, nullptr);
    }
    CSolidStorage temporary;
    if (u32 rc = temporary.Open(path, connStr, FileUse::kNoLock); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to init temporary solid storage;conn-str %s",
                       connStr);
        return rc;
    }
    *plan = PlanLoad(temporary, index);
    if (u32 rc = RunLoadPass(temporary, plan); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage,
                       "Failed to enum temporary solid storage rec to load;conn-str %s", connStr);
        return rc;
    }
    if (u32 rc = CheckAllOf(temporary, plan); rc != RC_OK) {
        return rc;
    }
    if (u32 rc = temporary.GetFlushedRev(&m_flushedRev); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to get flushed rev from temporary solid storage");
        return rc;
    }
    temporary.KeepTailIfDamaged(TailCare::kReport);
    return FinishLoad(0, &temporary);
}

u32 CK9eReplStorage::LoadFromOpenFile(const IndexFileContent& index, LoadPlan* plan) {
    *plan = PlanLoad(m_solid, index);
    i64 lowestRev = 0;
    bool hasItems = false;
    if (m_solid.ReadFirstCommitInfo(&lowestRev, &hasItems) != RC_OK) {
        LOG_ERROR_CODE(RC_FILE_CORRUPT, kLogStorage, "Begin of file corrupted");
        *plan = LoadPlan{};  // not the fault of the index
        return RC_FILE_CORRUPT;
    }
    if (!index.entries.empty()) {
        if (!hasItems) {
            LOG_WARNING(kLogStorage, "Empty file detected with non-empty index");
            *plan = LoadPlan{};
        } else if (index.entries.front().rev < lowestRev) {
            LOG_WARNING(kLogStorage, "Revision check failed before load");
            *plan = LoadPlan{};
        }
    }
    if (u32 rc = RunLoadPass(m_solid, plan); rc != RC_OK) {
        if (rc != kContentChanged) {
            LOG_ERROR_CODE(rc, kLogStorage, "Failed to load solid storage rec");
        }
        return rc;
    }
    if (u32 rc = CheckAllOf(m_solid, plan); rc != RC_OK) {
        return rc;
    }
    return FinishLoadFromOpenFile(lowestRev);
}

u32 CK9eReplStorage::FinishLoadFromOpenFile(i64 lowestRev) {
    if (u32 rc = m_solid.GetFlushedRev(&m_flushedRev); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to get flushed rev from solid storage");
        return rc;
    }
    m_solid.KeepTailIfDamaged(IsReadOnly() ? TailCare::kReport : TailCare::kKeepCopy);
    return FinishLoad(NextRevAfter(lowestRev), &m_solid);
}

LoadPlan CK9eReplStorage::PlanLoad(CSolidStorage& file, const IndexFileContent& index) {
    if (index.entries.empty()) {
        return {};
    }
    if (!IndexFitsFile(index, file.FileSize())) {
        LOG_WARNING(kLogStorage, "Index does not fit the storage file; loading without it");
        return {};
    }
    const IndexChoice choice = ChooseIndexUse(index, m_settings);
    if (TestIndex(file, {index.entries.data(), choice.testCount}) != RC_OK) {
        LOG_WARNING(kLogStorage, "Index does not fit the storage file; loading without it");
        return {};
    }
    LoadPlan plan = MakeLoadPlan(index, choice);
    LOG_INFO(kLogStorage, "Index test passed; start loading from offset %I64d", plan.startOffset);
    return plan;
}

u32 CK9eReplStorage::RunLoadPass(CSolidStorage& file, LoadPlan* plan) {
    for (const TIndexEntry& entry : plan->keptOnDisk) {
        m_blocks.Index().try_emplace(m_blocks.Index().end(), entry.rev, i64{entry.rev},
                                     i64{entry.offset}, nullptr);
    }
    u32 rc = RunLoadPassFrom(file, plan->startOffset);
    // An index may only save time: when it led to no commit block, or may have hidden records,
    // the load starts over without it.
    if (plan->UsesIndex() &&
        (rc == RC_FILE_CORRUPT || (rc == RC_OK && !LoadedAllThatIsKept(file, *plan)))) {
        LOG_WARNING(kLogStorage, "Index does not lead to all kept records; loading without it");
        *plan = LoadPlan{};
        m_blocks.EraseAll();
        m_oldestRev = 0;
        rc = RunLoadPassFrom(file, 0);
    }
    return rc;
}

// With the setting check: nothing may be written behind damage that the index passed over.
u32 CK9eReplStorage::CheckAllOf(CSolidStorage& file, LoadPlan* plan) {
    if (!m_settings.checkWhole) {
        return RC_OK;
    }
    const u32 rc = file.CheckWhole(plan->startOffset);
    if (rc == RC_FILE_CORRUPT) {
        *plan = LoadPlan{};  // not the fault of the index: without it the load would cut the file
    }
    return rc;
}

std::uint32_t CK9eReplStorage::PlaceLoadedRecord(std::uint64_t offset, const K9eReplRec* rec,
                                                 void* ctx) {
    return static_cast<CK9eReplStorage*>(ctx)->OnLoadRecord(static_cast<i64>(offset), *rec);
}

std::uint32_t CK9eReplStorage::TakeLoadedCommit(void* ctx, std::int64_t clearRev,
                                                std::int64_t commitRev) {
    return static_cast<CK9eReplStorage*>(ctx)->OnLoadCommit(clearRev, commitRev);
}

u32 CK9eReplStorage::RunLoadPassFrom(CSolidStorage& file, i64 startOffset) {
    m_inserter.dataCounter = nullptr;
    m_loadedRev = 0;
    m_closedRev = 0;
    return file.ScanFileFrom(&PlaceLoadedRecord, &TakeLoadedCommit, startOffset, this);
}

// Records before the index's first entry are in the file when a logical clear passed them over.
// They are all gone for the storage only if the clear revision reaches up to that entry, or lies in
// a gap before it. The item right before the entry mostly tells; else they are all read.
bool CK9eReplStorage::LoadedAllThatIsKept(CSolidStorage& file, const LoadPlan& plan) const {
    if (plan.first.offset == kFirstItemOffset || plan.first.rev <= m_oldestRev) {
        return true;
    }
    i64 revBefore = 0;
    if (file.FindRevBefore(plan.first.offset, &revBefore) == RC_OK && revBefore < m_oldestRev) {
        return true;
    }
    const FileEnumRange range{
        .fromRev = m_oldestRev, .toRev = plan.first.rev - 1, .reachesTo = plan.first.offset};
    bool completed = true;
    return file.EnumFileRecs(
               range, [](i64, const K9eReplRec*, void*) -> u32 { return RC_ENUM_STOP; }, nullptr,
               &completed) == RC_OK;
}

u32 CK9eReplStorage::OnLoadRecord(i64 offset, const K9eReplRec& rec) {
    if (u32 rc = m_inserter.Place(rec, offset); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to insert rec while load;rev %I64d", i64{rec.rev});
        return rc;
    }
    m_loadedRev = rec.rev;
    LOG_INFO(kLogStorage, "Loaded rec;rev %I64d; size %P", i64{rec.rev}, std::size_t{rec.dataSize});
    return RC_OK;
}

u32 CK9eReplStorage::OnLoadCommit(i64 clearRev, i64 commitRev) {
    m_closedRev = m_loadedRev;
    if (clearRev > commitRev) {
        m_blocks.EraseAll();
        m_oldestRev = clearRev;
    } else if (clearRev != m_oldestRev) {
        LOG_INFO(kLogStorage, "Processing commit block with minRev %I64d; old minRev %I64d",
                 clearRev, m_oldestRev);
        m_blocks.DropBelow(clearRev);
        m_oldestRev = clearRev;
    }
    // What is committed may leave memory at once: a file without an index may be larger than it.
    if (m_settings.MayEvict()) {
        return m_blocks.Shrink(m_settings.cacheBlocks, commitRev);
    }
    return RC_OK;
}

}  // namespace k9erepl
