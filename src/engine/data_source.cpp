// The storage object as IK9eReplDS: reference counting and the queries of other components.
#include "engine/repl_storage.h"

namespace k9erepl {

std::uint32_t CK9eReplStorage::AddRef() {
    return m_refCount.fetch_add(1, std::memory_order_relaxed) + 1;
}

std::uint32_t CK9eReplStorage::Release() {
    const u32 left = m_refCount.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left != 0) {
        return left;
    }
    if (!BelongsToThisProcess()) {
        EndInChild();
    } else if (m_solid.IsOnWritersThread()) {
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
    m_solid.LeaveToParent();
    if (m_index != nullptr) {
        m_index->LeaveToParent();
    }
    if (m_lock.try_lock()) {
        m_lock.EndStorageAtUnlock();
        m_lock.unlock();
    }
}

std::uint32_t CK9eReplStorage::GetDS(IK9eReplDS** out) {
    if (out == nullptr) {
        return RC_INVALID_ARG;
    }
    *out = this;
    return RC_OK;
}

bool CK9eReplStorage::IsSame(const void* other) {
    return other == static_cast<IK9eReplDS*>(this);
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
    return QueryWhenOpen(out, [this] { return m_nextRev.load(); });
}

template <typename Query>
u32 CK9eReplStorage::QueryWhenOpen(std::int64_t* out, Query query) {
    if (out == nullptr) {
        return RC_INVALID_ARG;
    }
    if (!BelongsToThisProcess()) {
        return RC_WRONG_STATE;
    }
    const Guard guard(m_lock);
    if (State() != StorageState::kOpen) {
        return RC_NOT_OPEN;
    }
    *out = query();
    return RC_OK;
}

std::uint32_t CK9eReplStorage::GetClearRev(std::int64_t* out) {
    if (out == nullptr) {
        return RC_INVALID_ARG;
    }
    return BelongsToThisProcess() ? GetClearOldRev(out) : u32{RC_WRONG_STATE};
}

std::uint32_t CK9eReplStorage::GetFlag(std::uint32_t, std::uint8_t* out) {
    if (out == nullptr) {
        return RC_INVALID_ARG;
    }
    if (!BelongsToThisProcess()) {
        return RC_WRONG_STATE;
    }
    *out = 0;
    return RC_OK;
}

std::uint32_t CK9eReplStorage::FlushOnIdle() {
    return AsCall("FlushOnIdle", [this] { return FlushWhenIdle(); });
}

}  // namespace k9erepl
