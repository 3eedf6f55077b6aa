// The life of the storage object: construction, opening, the last flush, tearing down.
#include <new>

#include "engine/repl_storage.h"
#include "solid/file_scan.h"
#include "solid/storage_names.h"
#include "support/log.h"
#include "support/memory_path.h"
#include "support/params.h"
#include "support/storage_exception.h"

namespace k9erepl {

CK9eReplStorage::CK9eReplStorage() : m_blocks(m_pool) {}

CK9eReplStorage::~CK9eReplStorage() {
    if (!BelongsToThisProcess()) {
        m_blocks.EraseAll();
        return;
    }
    FlushForTheLastTime();
    Deinit();
}

u32 CK9eReplStorage::Open(const char* connStr) {
    const Guard guard(m_lock);
    if (State() == StorageState::kBroken) {
        return RC_WRONG_STATE;
    }
    if (!platform::WatchForks()) {
        return Break(RC_NO_MEMORY);
    }
    try {
        return OpenLocked(connStr);
    } catch (const std::bad_alloc&) {
        return Break(RC_NO_MEMORY);
    }
}

u32 CK9eReplStorage::Break(u32 rc) {
    SetState(StorageState::kBroken);
    return rc;
}

u32 CK9eReplStorage::OpenLocked(const char* connStr) {
    if (u32 rc = m_settings.ReadCacheAndFlush(connStr); rc != RC_OK) {
        return Break(rc);
    }
    if (u32 rc = m_settings.ReadReadOnly(connStr); rc != RC_OK) {
        return Break(rc);
    }
    if (u32 rc = m_settings.ReadCheck(connStr); rc != RC_OK) {
        return Break(rc);
    }
    m_timeFlush = m_timing.Register("Flush");
    m_timeOnFlushCb = m_timing.Register("OnFlushCb");
    m_timeForcedFlush = m_timing.Register("ForcedFlush");
    m_timeFlushOnIdle = m_timing.Register("FlushOnIdle");
    m_timeWriteData1 = m_timing.Register("WriteData1");
    m_timeWriteData2 = m_timing.Register("WriteData2");
    if (u32 rc = HasFile() ? OpenSolidStorage(connStr) : OpenInMemory(connStr); rc != RC_OK) {
        return Break(rc);
    }
    m_settings.ReadMemoryReserve(connStr);
    MakePool();
    m_connStr = connStr;
    if (HasFile() && !IsReadOnly()) {
        if (u32 rc = MakeIndex(connStr); rc != RC_OK) {
            return Break(rc);
        }
        m_settings.ReadIndexHint(connStr);
    }
    LOG_INFO(kLogStorage, "e-repl storage was opened;conn-str %s", connStr);
    return RC_OK;
}

u32 CK9eReplStorage::OpenSolidStorage(const char* connStr) {
    std::string path;
    GetParam(connStr, "file", path);
    if (path.empty()) {
        LOG_ERROR_CODE(RC_INVALID_ARG, kLogStorage,
                       "Failed to get file parameter value;conn-str %s", connStr);
        return RC_INVALID_ARG;
    }
    if (IsMemoryPath(path)) {
        LOG_ERROR_CODE(RC_INVALID_ARG, kLogStorage, "Cannot flush to file %s;conn-str %s",
                       path.c_str(), connStr);
        return RC_INVALID_ARG;
    }
    // A storage that is only read leaves its index file alone, whatever that is.
    if (u32 rc = IsReadOnly() ? u32{RC_OK} : CheckStorageNames(connStr); rc != RC_OK) {
        return rc;
    }
    const FileUse use = IsReadOnly() ? FileUse::kReadOnly : FileUse::kWrite;
    if (u32 rc = m_solid.Open(path, connStr, use); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to init solid storage;conn-str %s", connStr);
        return rc;
    }
    if (u32 rc = m_solid.GetLifenum(&m_lifenum); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to get lifenum from solid storage;conn-str %s",
                       connStr);
        return rc;
    }
    if (u32 rc = m_solid.GetClearOldRev(&m_clearOldRev); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage,
                       "Failed to get revision mark from solid storage;conn-str %s", connStr);
        return rc;
    }
    return RC_OK;
}

u32 CK9eReplStorage::OpenInMemory(const char* connStr) {
    if (u32 rc = Truncate(); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to truncate storage;conn-str %s", connStr);
        return rc;
    }
    // Truncation opens the storage, but a client must load it first.
    SetState(StorageState::kClosed);
    return RC_OK;
}

void CK9eReplStorage::MakePool() {
    m_pool.SetBlockSize(m_settings.blockSize + kBlockOverhead);
    m_pool.SetMaxBlocks(m_settings.memoryReserve);
    m_inserter.blocks = &m_blocks;
    m_inserter.capacity = m_settings.blockSize;
    if (HasFile()) {
        m_inserter.maxRecordSize = FileScan::kBufferSize;
    }
}

u32 CK9eReplStorage::MakeIndex(const char* connStr) {
    u32 rc = RC_NO_MEMORY;
    try {
        m_index = std::make_unique<IndexObject>(connStr, *this, m_settings.blockSize,
                                                m_settings.flushTimeout);
        return RC_OK;
    } catch (const K9eStorageException& e) {
        rc = e.Code();
    } catch (const std::bad_alloc&) {
        rc = RC_NO_MEMORY;
    }
    LOG_ERROR_CODE(rc, kLogStorage, "Cannot create index object;conn-str %s", connStr);
    return rc;
}

void CK9eReplStorage::FlushForTheLastTime() {
    const Guard guard(m_lock);
    if (IsReadOnly()) {
        return;
    }
    // Before the flush: if that fails, its bytes hold nothing that was rolled back, and stay.
    ClearUndoneWrites();
    // Behind a failed flush, too: what was committed before the transaction that failed has only
    // this chance.
    if (State() == StorageState::kOpen || State() == StorageState::kFlushFailed) {
        try {
            FlushAllThatIsCommitted();
        } catch (...) {
            // Nobody is left to hear of it; what was committed to the file stays committed.
            LOG_ERROR(kLogStorage, "A callback threw during the last flush;conn-str %s",
                      m_connStr.c_str());
        }
    }
    // The index thread still runs while the file is closed: its idle flush finds nothing to do.
    m_policy.Clear();
}

// What callbacks of the flush committed is written by a second one, which tells nobody: it would
// never end.
void CK9eReplStorage::FlushAllThatIsCommitted() {
    const i64 nextRev = m_nextRev;
    if (Flush() != RC_OK || m_nextRev == nextRev) {
        return;
    }
    m_onFlush.Set(nullptr, nullptr);
    m_solid.SetWrittenRevisionCallback(nullptr, nullptr);
    Flush();
}

void CK9eReplStorage::Deinit() {
    LOG_INFO(kLogStorage, "Deinit e-repl storage;conn-str %s", m_connStr.c_str());
    // Another writer may open the file as soon as it is closed, and then owns the index file.
    if (m_index != nullptr) {
        m_index->EndWriting();
    }
    if (!m_solid.Close()) {
        m_blocks.Abandon();
    }
    m_index.reset();
    Reset();
}

void CK9eReplStorage::Reset() {
    m_timing.Report();
    m_blocks.EraseAll();
    SetState(StorageState::kClosed);
    m_nextRev = 1;
    m_rolledBack = false;
    m_transStartRev = 0;
    m_transStartUsed = 0;
    m_oldestRev = 0;
    m_flushedRev = 0;
    m_beginMoved = false;
    m_shrinkPending = false;
    m_indexedCount = 0;
    m_policy.Clear();
    m_transDataSize = 0;
    m_lifenum = 0;
    m_clearOldRev = 0;
}

}  // namespace k9erepl
