// The storage object as IK9eReplDS: reference counting and the queries of other components.
#include "engine/repl_storage.h"

namespace k9erepl {

std::uint32_t CK9eReplStorage::AddRef() {
    return m_refCount.fetch_add(1, std::memory_order_relaxed) + 1;
}

std::uint32_t CK9eReplStorage::Release() {
    const u32 left = m_refCount.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left == 0) {
        delete this;
    }
    return left;
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
    return EnumRecords(fromRev, kEndOfRevs, cb, ctx);
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
    const Guard guard(m_lock);
    if (State() != StorageState::kOpen) {
        return RC_NOT_OPEN;
    }
    *out = query();
    return RC_OK;
}

std::uint32_t CK9eReplStorage::GetClearRev(std::int64_t* out) {
    return out == nullptr ? RC_INVALID_ARG : GetClearOldRev(out);
}

std::uint32_t CK9eReplStorage::GetFlag(std::uint32_t, std::uint8_t* out) {
    if (out == nullptr) {
        return RC_INVALID_ARG;
    }
    *out = 0;
    return RC_OK;
}

}  // namespace k9erepl
