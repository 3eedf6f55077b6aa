// The slots of the storage object, and the order in which its objects work; see the header.
#include "engine/repl_storage.h"

#include <cassert>
#include <new>

#include "engine/live_loader.h"
#include "engine/loader.h"
#include "engine/opener.h"
#include "engine/revision.h"
#include "support/log.h"

namespace k9erepl {

// --- Checks in front of the calls

u32 CK9eReplStorage::FileOwner::RunAsCall(u32 (*work)(void* ctx), void* ctx) {
    return m_storage.AsCall("ScanFile", [&] {
        const Guard guard(m_storage.m_lock);
        return work(ctx);
    });
}

ResultCode CK9eReplStorage::RefuseReadOnly(const char* call) const {
    assert(m_settings.readOnly);
    LOG_ERROR_CODE(RC_NOT_SUPPORTED, kLogStorage, "Storage is read-only;refused %s", call);
    return RC_NOT_SUPPORTED;
}

ResultCode CK9eReplStorage::RefuseQuery(const void* out) const {
    if (out == nullptr) {
        return RC_INVALID_ARG;
    }
    return BelongsToThisProcess() ? ResultCode{RC_OK} : u32{RC_WRONG_STATE};
}

template <typename Query>
ResultCode CK9eReplStorage::QueryWhenOpen(std::int64_t* out, Query query) {
    if (ResultCode rc = RefuseQuery(out); rc != RC_OK) {
        return rc;
    }
    const Guard guard(m_lock);
    if (!m_status.IsOpen()) {
        return RC_NOT_OPEN;
    }
    *out = query();
    return RC_OK;
}

// --- Opening and loading

ResultCode CK9eReplStorage::Open(const char* connStr) {
    const Guard guard(m_lock);
    if (m_status.State() == StorageState::kBroken) {
        return RC_WRONG_STATE;
    }
    ResultCode rc = RC_NO_MEMORY;
    try {
        if (platform::WatchForks()) {
            Opener opener(m_settings, m_status, m_blocks, m_file, m_marks, m_index, m_flusher,
                          m_clearer);
            rc = opener.Open(connStr, *this, &m_connStr);
        }
    } catch (const std::bad_alloc&) {
        rc = RC_NO_MEMORY;
    }
    return rc == RC_OK ? rc : m_status.Break(rc);
}

std::uint32_t CK9eReplStorage::Load() {
    const Guard guard(m_lock);
    if (m_status.State() == StorageState::kBroken) {
        return RC_WRONG_STATE;
    }
    Loader loader(m_settings, m_connStr, m_status, m_blocks, m_file, m_index, m_clearer);
    if (m_settings.readOnly) {
        // A walk that is under way would go on among other records.
        return m_walks > 0 ? u32{RC_ALREADY}
                           : LiveLoader(loader, m_connStr, m_status, m_file, m_marks).Load();
    }
    // A storage whose flush failed has records in memory that the file does not have: loading the
    // file would lose them.
    return m_status.State() == StorageState::kClosed ? loader.Load() : u32{RC_ALREADY};
}

// --- Transactions

std::uint32_t CK9eReplStorage::InsertP(K9eReplRec* rec) {
    return Change("InsertP", [&] { return m_transaction.InsertP(rec); });
}

std::uint32_t CK9eReplStorage::Rollback() {
    return Change("Rollback", [this] { return m_transaction.Rollback(); });
}

std::uint32_t CK9eReplStorage::FlushOnIdle() {
    return AsCall("FlushOnIdle", [this] { return FlushWhenIdle(); });
}

ResultCode CK9eReplStorage::FlushWhenIdle() {
    if (m_lock.StorageIsToEnd()) [[unlikely]] {
        // OnWriteToFile closed the last handle on the writing thread; perhaps no other call comes.
        m_lock.EndStorageIfFree();
        return RC_OK;
    }
    if (!m_settings.HasFile()) {
        return RC_OK;
    }
    const StorageState state = m_status.State();
    if (state != StorageState::kClosed && state != StorageState::kOpen) {
        m_flusher.RecordFlushTime();
        return RC_WRONG_STATE;
    }
    // The idle call never waits. A first look without the lock saves most attempts to take it.
    if (!m_flusher.IsDue() || !m_lock.try_lock()) {
        return RC_OK;
    }
    const Guard guard(m_lock, std::adopt_lock);
    return m_flusher.FlushNeeded() ? m_flusher.FlushOnIdle(m_transaction.LastCommittedRev())
                                   : ResultCode{RC_OK};
}

// --- Reading and removing

ResultCode CK9eReplStorage::EnumWithVisitor(i64 fromRev, i64 toRev, RecordVisitor visitor,
                                            void* ctx) {
    const ScopedValue walking(m_walks, m_walks + 1);
    return RecordWalk({m_settings, m_status, m_blocks, m_file, m_blocks.NotesInFile()}, visitor,
                      ctx)
        .Run(fromRev, toRev);
}

std::uint32_t CK9eReplStorage::EnumRecords(std::int64_t fromRev, std::int64_t toRev,
                                           K9eReplEnumCb cb, void* cbContext) {
    const Guard guard(m_lock);
    if (ResultCode rc = m_status.RefuseUnless(m_status.IsOpen(), "Failed to enum recs");
        rc != RC_OK) {
        return rc;
    }
    ClientVisitor client{cb, cbContext};
    return EnumWithVisitor(fromRev, toRev, &ClientVisitor::Visit, &client);
}

std::uint32_t CK9eReplStorage::ClearOldRev(std::int64_t rev, std::uint32_t mode) {
    return Change("ClearOldRev",
                  [&] { return m_clearer.ClearOldRev(rev, static_cast<ClearMode>(mode)); });
}

std::uint32_t CK9eReplStorage::Truncate() {
    return Change("Truncate", [this] { return m_clearer.Truncate(); });
}

// --- Marks, revisions, callbacks

std::uint32_t CK9eReplStorage::SetLifenum(std::uint32_t lifenum) {
    return Change("SetLifenum", [&] { return m_marks.SetLifenum(lifenum); });
}

std::uint32_t CK9eReplStorage::GetLifenum(std::uint32_t* out) {
    const Guard guard(m_lock);
    *out = m_marks.Lifenum();
    return RC_OK;
}

std::uint32_t CK9eReplStorage::GetClearOldRev(std::int64_t* out) {
    const Guard guard(m_lock);
    *out = m_marks.ClearOldRev();
    return RC_OK;
}

// --- As the data source of other components

std::uint32_t CK9eReplStorage::GetDS(IK9eReplDS** out) {
    if (out == nullptr) {
        return RC_INVALID_ARG;
    }
    *out = this;
    return RC_OK;
}

std::uint32_t CK9eReplStorage::EnumFrom(std::uint32_t, std::uint32_t, std::uint32_t,
                                        std::int64_t fromRev, std::uint32_t, K9eReplEnumCb cb,
                                        void* ctx) {
    return AsCall("EnumFrom", [&] { return EnumRecords(fromRev, kEndOfRevs, cb, ctx); });
}

std::uint32_t CK9eReplStorage::GetFirstRev(std::uint32_t, std::int64_t* out) {
    const BlockIndex& index = m_blocks.Index();
    return QueryWhenOpen(out, [&] { return index.empty() ? 1 : index.begin()->first; });
}

std::uint32_t CK9eReplStorage::GetLastRev(std::uint32_t, std::int64_t* out) {
    return QueryWhenOpen(out, [this] { return m_blocks.NextRev(); });
}

std::uint32_t CK9eReplStorage::GetClearRev(std::int64_t* out) {
    const ResultCode rc = RefuseQuery(out);
    return rc == RC_OK ? GetClearOldRev(out) : rc;
}

std::uint32_t CK9eReplStorage::GetFlag(std::uint32_t, std::uint8_t* out) {
    const ResultCode rc = RefuseQuery(out);
    if (rc == RC_OK) {
        *out = 0;
    }
    return rc;
}

// --- The end

std::uint32_t CK9eReplStorage::Release() {
    const u32 left = m_refCount.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left != 0) {
        return left;
    }
    if (!BelongsToThisProcess()) {
        EndInChild();
    } else if (m_file.IsOnWritersThread()) {
        // In OnWriteToFile. A client may hold the lock and wait for this very thread: whoever frees
        // the lock next ends the storage, at the latest the idle call.
        m_lock.EndStorageAtUnlock();
    } else {
        // Inside a callback the storage ends when the outermost call leaves it, else right here.
        const Guard guard(m_lock);
        m_lock.EndStorageAtUnlock();
    }
    return 0;
}

// The files and threads are the parent's. If a thread of the parent was inside a call when it
// forked, what it was changing may be half changed, and stays allocated.
void CK9eReplStorage::EndInChild() {
    assert(!BelongsToThisProcess());
    m_file.LeaveToParent();
    m_index.LeaveToParent();
    m_lock.EndStorageAtUnlock();
    m_lock.EndStorageIfFree();
}

CK9eReplStorage::~CK9eReplStorage() {
    assert(m_walks == 0 || !BelongsToThisProcess());
    if (!BelongsToThisProcess()) {
        m_blocks.Reset();
        return;
    }
    FlushForTheLastTime();
    LOG_INFO(kLogStorage, "Deinit e-repl storage;conn-str %s", m_connStr.c_str());
    m_index.EndWriting();
    if (!m_file.Close()) {
        m_blocks.Abandon();
    }
    m_index.End();
    m_clearer.StartOver();
}

void CK9eReplStorage::FlushForTheLastTime() {
    const Guard guard(m_lock);
    if (m_settings.readOnly) {
        return;
    }
    // Before the flush. If the flush fails, its bytes stay in the file, where a load may serve
    // them: they hold only what was committed, nothing that was rolled back.
    m_flusher.ClearUndoneWrites();
    // Also after a failed flush: this is the last chance for what was committed before the
    // transaction that failed.
    if (m_status.MayEnd()) {
        try {
            m_transaction.FlushForTheLastTime();
        } catch (...) {
            // No client is left to be told. What was committed to the file stays committed.
            LOG_ERROR(kLogStorage, "A callback threw during the last flush;conn-str %s",
                      m_connStr.c_str());
        }
    }
    // The index thread still runs while the file is closed: its idle flush finds nothing to do.
    m_flusher.ForgetCommits();
}

}  // namespace k9erepl
