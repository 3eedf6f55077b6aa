// A recursive lock with a try-lock: the storage's lock, the block pool's, the queue's. It is used
// with std::lock_guard and std::unique_lock, hence the names of its functions.
#ifndef K9EREPL_PLATFORM_LOCK_H
#define K9EREPL_PLATFORM_LOCK_H

#include <cstddef>

namespace k9erepl::platform {

// Not a std::recursive_mutex: that may throw from lock(), and its layout belongs to the compiler's
// library. Making and locking one of these never fails. A fork copies the lock as it is, so in a
// child it may be held for ever by a thread that does not exist there.
class RecursiveLock {
  public:
    RecursiveLock();
    // REQUIRES: no thread holds the lock.
    ~RecursiveLock();
    RecursiveLock(const RecursiveLock&) = delete;
    RecursiveLock& operator=(const RecursiveLock&) = delete;

    // Waits until no other thread holds the lock. The thread that holds it may lock again, and must
    // unlock as often as it locked.
    void lock();
    // REQUIRES: the calling thread holds the lock.
    void unlock();
    // Takes the lock if no other thread holds it; never waits.
    bool try_lock();

  private:
    // Room for the operating system's object, whose type stays out of this header. Not aligned as
    // std::max_align_t: on 32-bit Windows that type depends on the headers that came before, and
    // objects with a lock in them would be laid out differently from file to file.
    static constexpr std::size_t kNativeAlignment = 8;
    // The pthread_mutex_t or CRITICAL_SECTION; both sources assert that it fits.
    alignas(kNativeAlignment) unsigned char m_native[64];
};

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_LOCK_H
