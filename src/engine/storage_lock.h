// The storage's lock. Recursive, and the place where a storage ends whose last handle was closed
// inside one of its own calls. Every slot of the storage object holds it for its whole run.
#ifndef K9EREPL_ENGINE_STORAGE_LOCK_H
#define K9EREPL_ENGINE_STORAGE_LOCK_H

#include <atomic>

#include "platform/int_types.h"
#include "platform/lock.h"

namespace k9erepl {

// Fits std::lock_guard. A guard must be the first object of its function: its end may be the end
// of the storage.
class StorageLock {
  public:
    // `destroy` ends the storage `ctx`, and with it this object.
    StorageLock(void (*destroy)(void* ctx), void* ctx) : m_destroy(destroy), m_ctx(ctx) {}
    StorageLock(const StorageLock&) = delete;
    StorageLock& operator=(const StorageLock&) = delete;

    void lock() {
        m_lock.lock();
        ++m_depth;
    }
    // Takes the lock if no other thread holds it; never waits.
    bool try_lock() {
        if (!m_lock.try_lock()) {
            return false;
        }
        ++m_depth;
        return true;
    }
    // When this is the outermost level and the storage is to end, destroys the storage and with it
    // this object. REQUIRES: the caller holds the lock.
    void unlock();

    // The unlock that next frees the lock destroys the storage. Once; needs no lock.
    void EndStorageAtUnlock();
    // Frees the lock at once if nobody holds it, so that a storage that is to end does.
    void EndStorageIfFree() {
        if (try_lock()) {
            unlock();
        }
    }
    bool StorageIsToEnd() const { return m_life.load(std::memory_order_acquire) == Life::kToEnd; }

  private:
    enum class Life : u32 {
        kLives,
        kToEnd,   // no handle is left, but a call is under way
        kEnding,  // the destructor runs: handles that its callbacks take and give count no more
    };

    bool TakeEnd() {
        Life toEnd = Life::kToEnd;
        return m_life.compare_exchange_strong(toEnd, Life::kEnding, std::memory_order_acq_rel);
    }

    void (*const m_destroy)(void* ctx);
    void* const m_ctx;
    platform::RecursiveLock m_lock;
    u32 m_depth = 0;  // levels of the thread that holds the lock; guarded by m_lock
    std::atomic<Life> m_life{Life::kLives};
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_STORAGE_LOCK_H
