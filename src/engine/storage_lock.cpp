// The end of a storage by its lock; see the header.
#include "engine/storage_lock.h"

#include <cassert>

#include "engine/repl_storage.h"

namespace k9erepl {

void StorageLock::unlock() {
    assert(m_depth > 0);
    const bool end = --m_depth == 0 && StorageIsToEnd() && TakeEnd();
    CK9eReplStorage& storage = m_storage;
    m_lock.unlock();
    if (end) [[unlikely]] {
        storage.Destroy();
    }
}

void StorageLock::EndStorageAtUnlock() {
    Life lives = Life::kLives;
    m_life.compare_exchange_strong(lives, Life::kToEnd, std::memory_order_acq_rel);
}

}  // namespace k9erepl
