// A recursive lock with a try-lock: the storage's lock, the block pool's, the queue's. It is used
// with std::lock_guard and std::unique_lock, hence the names of its functions.
#ifndef K9EREPL_PLATFORM_LOCK_H
#define K9EREPL_PLATFORM_LOCK_H

#include <atomic>
#include <cassert>

#include "platform/int_types.h"

namespace k9erepl::platform {

// Taking a free lock and giving back one for which nobody waits costs two atomic operations and a
// dozen instructions, without a call into the system: every exported function does both. A thread
// that meets a lock in use sleeps in the system until it is given back. Nobody waits in a row: a
// thread that is running may take the lock before one that has just been woken.
//
// Not a std::recursive_mutex: that may throw from lock(), and costs several times as much. Making
// and locking one of these never fails. A fork copies the lock as it is, so in a child it may be
// held for ever by a thread that does not exist there.
class RecursiveLock {
  public:
    RecursiveLock() = default;
    // REQUIRES: no thread holds the lock.
    ~RecursiveLock() = default;
    RecursiveLock(const RecursiveLock&) = delete;
    RecursiveLock& operator=(const RecursiveLock&) = delete;

    // Waits until no other thread holds the lock. The thread that holds it may lock again, and must
    // unlock as often as it locked.
    void lock();
    // REQUIRES: the calling thread holds the lock.
    void unlock() {
        assert(m_owner.load(std::memory_order_relaxed) != kNoThread);
        if (m_again != 0) [[unlikely]] {
            --m_again;
            return;
        }
        m_owner.store(kNoThread, std::memory_order_relaxed);
        // From here on another thread may take the lock and end the object that it lies in. Wake
        // uses its address only.
        if (m_use.exchange(kFree, std::memory_order_release) == kAwaited) [[unlikely]] {
            Wake(m_use);
        }
    }
    // Takes the lock if no other thread holds it; never waits.
    bool try_lock();

    // True when the next unlock() makes the lock free. REQUIRES: the calling thread holds the lock.
    bool IsHeldOnce() const { return m_again == 0; }

  private:
    // A number that no two living threads have in common; never kNoThread.
    using ThreadMark = std::uintptr_t;
    static constexpr ThreadMark kNoThread = 0;

    // How the lock is used.
    static constexpr u32 kFree = 0;
    static constexpr u32 kHeld = 1;     // a thread holds it
    static constexpr u32 kAwaited = 2;  // a thread holds it, and others may sleep until it is free

    // lock() and try_lock() of the thread `me`.
    void LockAs(ThreadMark me) {
        if (!TakeIfFree(me)) [[unlikely]] {
            LockInUse(me);
        }
    }
    [[nodiscard]] bool TryLockAs(ThreadMark me) { return TakeIfFree(me) || TakeAgain(me); }
    // What lock() does when the lock is in use, perhaps by the thread `me` itself.
    void LockInUse(ThreadMark me);

    [[nodiscard]] bool TakeIfFree(ThreadMark me) {
        u32 use = kFree;
        if (!m_use.compare_exchange_strong(use, kHeld, std::memory_order_acquire,
                                           std::memory_order_relaxed)) [[unlikely]] {
            return false;
        }
        m_owner.store(me, std::memory_order_relaxed);
        return true;
    }
    [[nodiscard]] bool TakeAgain(ThreadMark me) {
        if (m_owner.load(std::memory_order_relaxed) != me) {
            return false;
        }
        ++m_again;
        return true;
    }
    // Sleeps until the lock was free and is this thread's. It leaves the lock as awaited, because
    // others may still sleep: then the unlock wakes one in vain at worst.
    void TakeAfterWait();
    // Lets one thread that waits for `use`, or all of them, look again. The object at that address
    // may be gone already.
    static void Wake(std::atomic<u32>& use);

    std::atomic<u32> m_use{kFree};
    // How often the thread that holds the lock has locked it again. Guarded by the lock itself.
    u32 m_again = 0;
    // The thread that holds the lock, else kNoThread. Only that thread can find itself here.
    std::atomic<ThreadMark> m_owner{kNoThread};
};

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_LOCK_H
