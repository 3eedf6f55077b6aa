// The storage's lock. It is recursive, and it destroys a storage whose last handle was closed
// inside one of its own calls, when the outermost call ends. Every slot of the storage object holds
// it while it runs.
#ifndef K9EREPL_ENGINE_STORAGE_LOCK_H
#define K9EREPL_ENGINE_STORAGE_LOCK_H

#include <atomic>

#include "platform/int_types.h"
#include "platform/lock.h"

namespace k9erepl {

// Can be used with std::lock_guard. A guard must be the first object of its function, so that it is
// destroyed last: its end may be the end of the storage.
class StorageLock {
  public:
    // `destroy` ends the storage `ctx`, and with it this object. It is called at most once.
    StorageLock(void (*destroy)(void* ctx), void* ctx) : m_destroy(destroy), m_ctx(ctx) {}
    StorageLock(const StorageLock&) = delete;
    StorageLock& operator=(const StorageLock&) = delete;

    // Waits without a time limit. A thread that holds the lock may take it again.
    void lock() { m_lock.lock(); }
    // Takes the lock if no other thread holds it; never waits.
    bool try_lock() { return m_lock.try_lock(); }
    // Gives one level back. At the outermost level, if the storage is to end, destroys the storage
    // and with it this object.
    // REQUIRES: the caller holds the lock.
    void unlock() {
        if (StorageIsToEnd() && m_lock.IsHeldOnce()) [[unlikely]] {
            UnlockAndEnd();
        } else {
            m_lock.unlock();
        }
    }

    // From now on, the unlock that frees the lock destroys the storage. Only the first call counts.
    // Needs no lock.
    void EndStorageAtUnlock();
    // Takes and frees the lock if nobody holds it, so that a storage that is to end is destroyed
    // now.
    void EndStorageIfFree() {
        if (try_lock()) {
            unlock();
        }
    }
    // True between EndStorageAtUnlock and the beginning of the destructor. Needs no lock.
    bool StorageIsToEnd() const { return m_life.load(std::memory_order_acquire) == Life::kToEnd; }

  private:
    // Only ever goes forward.
    enum class Life : u32 {
        kLives,   // a handle is left
        kToEnd,   // no handle is left, but a call is under way
        kEnding,  // the destructor runs; handles that its callbacks take and give back no longer
                  // matter
    };

    // Frees the lock and destroys the storage, unless another thread does that already.
    // REQUIRES: the storage is to end; the caller holds the lock once.
    void UnlockAndEnd();
    // True for the one thread that may destroy the storage.
    bool TakeEnd() {
        Life toEnd = Life::kToEnd;
        return m_life.compare_exchange_strong(toEnd, Life::kEnding, std::memory_order_acq_rel);
    }

    void (*const m_destroy)(void* ctx);  // never null
    void* const m_ctx;
    platform::RecursiveLock m_lock;
    std::atomic<Life> m_life{Life::kLives};
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_STORAGE_LOCK_H
