// The end of a storage by its lock; see the header.
#include "engine/storage_lock.h"

#include <cassert>

namespace k9erepl {

void StorageLock::UnlockAndEnd() {
    assert(m_lock.IsHeldOnce());
    const bool end = TakeEnd();
    // Once the lock is free, another thread may end the storage, and with it this object.
    const auto destroy = m_destroy;
    void* const ctx = m_ctx;
    m_lock.unlock();
    if (end) {
        destroy(ctx);
    }
}

void StorageLock::EndStorageAtUnlock() {
    Life lives = Life::kLives;
    m_life.compare_exchange_strong(lives, Life::kToEnd, std::memory_order_acq_rel);
}

}  // namespace k9erepl
