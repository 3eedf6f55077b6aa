// The steps of a load; see the header.
#include "engine/loader.h"

#include <algorithm>
#include <cassert>
#include <iterator>
#include <new>

#include "engine/clear_search.h"
#include "engine/index_test.h"
#include "engine/revision.h"
#include "support/log.h"
#include "support/memory_path.h"
#include "support/params.h"

namespace k9erepl {

ResultCode Loader::Load() {
    assert(m_status.State() == StorageState::kClosed);
    ResultCode rc = RC_NO_MEMORY;
    try {
        rc = LoadAnew();
    } catch (const std::bad_alloc&) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to load, out of memory;conn-str %s",
                       m_connStr.c_str());
    }
    if (rc != RC_OK) {
        Abandon();
    }
    return rc;
}

void Loader::Abandon() {
    m_index.Stop();
    m_blocks.Reset();
    m_status.Set(StorageState::kClosed);
}

ResultCode Loader::LoadAnew() {
    m_blocks.Clear();
    IndexFileContent index;
    if (const std::string path = IndexFileName(m_connStr.c_str()); !path.empty()) {
        // Dropped: a fault of the index file was logged, and loading goes on without it.
        (void)ReadIndexFile(path, &index);
    }
    const ResultCode rc = LoadOnce(index);
    // The index may be at fault, not the file. When the system fails, another try would only read
    // more.
    if (rc == RC_OK || rc == RC_SYSTEM_ERROR || rc == RC_NO_MEMORY || rc == kContentChanged ||
        !m_plan.UsesIndex()) {
        return rc;
    }
    LOG_WARNING(kLogStorage, "Load with the index failed; loading without it;code %u", rc);
    Abandon();
    return LoadOnce(IndexFileContent{});
}

ResultCode Loader::LoadOn() {
    assert(m_settings.readOnly && m_file.IsOpen());
    i64 lowestRev = 0;
    bool hasItems = false;
    if (ResultCode rc = m_file.ReadFirstCommitInfo(&lowestRev, &hasItems); rc != RC_OK) {
        return rc;
    }
    if (ResultCode rc = m_pass.ScanOn(m_file); rc != RC_OK) {
        return rc;
    }
    return FinishFromOpenFile(lowestRev);
}

ResultCode Loader::LoadOnce(const IndexFileContent& index) {
    assert(m_blocks.Index().empty());
    m_plan = LoadPlan{};
    return m_file.IsOpen() ? LoadFromOpenFile(index) : LoadWithoutOpenFile(index);
}

ResultCode Loader::LoadWithoutOpenFile(const IndexFileContent& index) {
    assert(!m_file.IsOpen());
    const char* connStr = m_connStr.c_str();
    std::string path;
    GetParam(connStr, "file", path);
    if (path.empty()) {
        LOG_ERROR_CODE(RC_INVALID_ARG, kLogStorage,
                       "Failed to get file parameter value to load data;conn-str %s", connStr);
        return RC_INVALID_ARG;
    }
    if (IsMemoryPath(path)) {
        if (ResultCode rc = m_clearer.Truncate(); rc != RC_OK) {
            LOG_ERROR_CODE(rc, kLogStorage, "Failed to truncate storage;conn-str %s", connStr);
            return rc;
        }
        return Finish(0, nullptr);
    }
    CSolidStorage temporary;
    if (ResultCode rc = temporary.Open(path, connStr, FileUse::kNoLock); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to init temporary solid storage;conn-str %s",
                       connStr);
        return rc;
    }
    Plan(temporary, index);
    if (ResultCode rc = RunPass(temporary); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage,
                       "Failed to enum temporary solid storage rec to load;conn-str %s", connStr);
        return rc;
    }
    if (ResultCode rc = CheckAllOf(temporary); rc != RC_OK) {
        return rc;
    }
    i64 flushedRev = 0;
    if (ResultCode rc = temporary.GetFlushedRev(&flushedRev); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to get flushed rev from temporary solid storage");
        return rc;
    }
    m_blocks.SetFlushedRev(flushedRev);
    temporary.KeepTailIfDamaged(TailCare::kReport);
    return Finish(0, &temporary);
}

ResultCode Loader::LoadFromOpenFile(const IndexFileContent& index) {
    assert(m_file.IsOpen());
    Plan(m_file, index);
    i64 lowestRev = 0;
    bool hasItems = false;
    if (m_file.ReadFirstCommitInfo(&lowestRev, &hasItems) != RC_OK) {
        LOG_ERROR_CODE(RC_FILE_CORRUPT, kLogStorage, "Begin of file corrupted");
        m_plan = LoadPlan{};  // not the fault of the index
        return RC_FILE_CORRUPT;
    }
    if (!index.entries.empty()) {
        if (!hasItems) {
            LOG_WARNING(kLogStorage, "Empty file detected with non-empty index");
            m_plan = LoadPlan{};
        } else if (index.entries.front().rev < lowestRev) {
            LOG_WARNING(kLogStorage, "Revision check failed before load");
            m_plan = LoadPlan{};
        }
    }
    if (ResultCode rc = RunPass(m_file); rc != RC_OK) {
        if (rc != kContentChanged) {
            LOG_ERROR_CODE(rc, kLogStorage, "Failed to load solid storage rec");
        }
        return rc;
    }
    if (ResultCode rc = CheckAllOf(m_file); rc != RC_OK) {
        return rc;
    }
    return FinishFromOpenFile(lowestRev);
}

ResultCode Loader::FinishFromOpenFile(i64 lowestRev) {
    i64 flushedRev = 0;
    if (ResultCode rc = m_file.GetFlushedRev(&flushedRev); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to get flushed rev from solid storage");
        return rc;
    }
    m_blocks.SetFlushedRev(flushedRev);
    m_file.KeepTailIfDamaged(m_settings.readOnly ? TailCare::kReport : TailCare::kKeepCopy);
    return Finish(NextRevAfter(lowestRev), &m_file);
}

void Loader::Plan(CSolidStorage& file, const IndexFileContent& index) {
    assert(!m_plan.UsesIndex());
    if (index.entries.empty()) {
        return;
    }
    if (!IndexFitsFile(index, file.FileSize())) {
        LOG_WARNING(kLogStorage, "Index does not fit the storage file; loading without it");
        return;
    }
    const IndexChoice choice = ChooseIndexUse(index, m_settings);
    if (TestIndex(file, {index.entries.data(), choice.testCount}) != RC_OK) {
        LOG_WARNING(kLogStorage, "Index does not fit the storage file; loading without it");
        return;
    }
    m_plan = MakeLoadPlan(index, choice);
    LOG_INFO(kLogStorage, "Index test passed; start loading from offset %I64d", m_plan.startOffset);
}

ResultCode Loader::RunPass(CSolidStorage& file) {
    for (const TIndexEntry& entry : m_plan.keptOnDisk) {
        m_blocks.AddBlockInFile(entry.rev, entry.offset);
    }
    ResultCode rc = m_pass.ScanFrom(file, m_plan.startOffset);
    // An index may only save time: when it led to no commit block, or may have hidden records,
    // the load starts over without it.
    if (m_plan.UsesIndex() &&
        (rc == RC_FILE_CORRUPT || (rc == RC_OK && !LoadedAllThatIsKept(file)))) {
        LOG_WARNING(kLogStorage, "Index does not lead to all kept records; loading without it");
        m_plan = LoadPlan{};
        m_blocks.Clear();
        rc = m_pass.ScanFrom(file, 0);
    }
    return rc;
}

// With the setting check: nothing may be written behind damage that the index passed over.
ResultCode Loader::CheckAllOf(CSolidStorage& file) {
    if (!m_settings.checkWhole) {
        return RC_OK;
    }
    const ResultCode rc = file.CheckWhole(m_plan.startOffset);
    if (rc == RC_FILE_CORRUPT) {
        m_plan = LoadPlan{};  // not the fault of the index: without it the load would cut the file
    }
    return rc;
}

// Records in front of the index's first entry are in the file when a logical clear left them there.
// The storage has none of them only if the clear revision reaches up to that entry or lies in a gap
// before it. The item right in front of the entry mostly says so; if it does not, they are all
// read.
bool Loader::LoadedAllThatIsKept(CSolidStorage& file) const {
    assert(m_plan.UsesIndex());
    if (m_plan.first.offset == kFirstItemOffset || m_plan.first.rev <= m_blocks.OldestRev()) {
        return true;
    }
    i64 revBefore = 0;
    if (file.FindRevBefore(m_plan.first.offset, &revBefore) == RC_OK &&
        revBefore < m_blocks.OldestRev()) {
        return true;
    }
    const FileEnumRange range{.fromRev = m_blocks.OldestRev(),
                              .toRev = m_plan.first.rev - 1,
                              .reachesTo = m_plan.first.offset};
    bool completed = true;
    return file.EnumFileRecs(
               range, [](i64, const K9eReplRec*, void*) -> u32 { return RC_ENUM_STOP; }, nullptr,
               &completed) == RC_OK;
}

ResultCode Loader::Finish(i64 nextRevOfFile, CSolidStorage* file) {
    assert(file != nullptr || m_blocks.Index().empty());
    if (ResultCode rc = m_pass.CutUncommitted(); rc != RC_OK) {
        return rc;
    }
    if (!m_blocks.Blocks().empty()) {
        // Everything in memory was read from the file.
        K9eReplBlock& newest = m_blocks.Newest();
        newest.flushedEnd = newest.used;
    }
    // Not below the oldest revision, whatever the file claims: such a record would never be served.
    m_blocks.SetNextRev(std::max(
        {i64{1}, NextRevAfter(m_blocks.FlushedRev()), nextRevOfFile, m_blocks.OldestRev()}));
    if (m_settings.MayEvict()) {
        if (ResultCode rc = m_blocks.Shrink(m_settings.cacheBlocks, m_blocks.FlushedRev());
            rc != RC_OK) {
            return rc;
        }
    }
    m_status.Set(StorageState::kOpen);
    if (file != nullptr) {
        if (ResultCode rc = CutCleared(*file); rc != RC_OK) {
            return rc;
        }
    }
    const BlockIndex& index = m_blocks.Index();
    m_blocks.SetBeginMoved(!index.empty() && index.begin()->second.fileOffset != kFirstItemOffset);
    return m_index.Start();
}

// The first block may hold records below the clear revision. Afterwards it begins with the first
// record that is still served.
ResultCode Loader::CutCleared(CSolidStorage& file) {
    assert(m_status.IsOpen());
    m_blocks.DropBelow(m_blocks.OldestRev());
    const BlockIndex& index = m_blocks.Index();
    if (index.empty() || index.begin()->first >= m_blocks.OldestRev()) {
        return RC_OK;
    }
    const auto first = index.begin();
    const auto second = std::next(first);
    ClearSearch search{.minRev = m_blocks.OldestRev()};
    const FileEnumRange range{
        .fromRev = first->first,
        .toRev = second == index.end() ? kEndOfRevs : second->first - 1,
        .alsoCommits = true,
        .startOffset = first->second.fileOffset,
        .reachesTo = second == index.end() ? 0 : i64{second->second.fileOffset}};
    bool completed = true;
    if (ResultCode rc = file.EnumFileRecs(range, &ClearSearch::Visit, &search, &completed);
        rc != RC_OK && rc != RC_ENUM_STOP) {
        LOG_ERROR_CODE(rc, kLogStorage, "Enum from disk failed after load");
        return rc;
    }
    LOG_INFO(kLogStorage,
             "Squeeze enum after load; minRev: %I64d, newFirstRecOffset: %I64d, commitOffset: "
             "%I64d, recSz: %u",
             search.minRev, search.newFirstRecOffset, search.commitOffset, search.recSz);
    if (search.FoundKept()) {
        m_blocks.RekeyFirst(search.newFirstRev, search.newFirstRev, search.newFirstRecOffset,
                            search.recSz);
    } else {
        m_blocks.DropFirst();
    }
    return RC_OK;
}

}  // namespace k9erepl
