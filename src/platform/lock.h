// A recursive mutual exclusion with a try-lock: the storage's lock, the pool's, the queue's.
// Fits std::lock_guard and std::unique_lock.
#ifndef K9EREPL_PLATFORM_LOCK_H
#define K9EREPL_PLATFORM_LOCK_H

#include <cstddef>

namespace k9erepl::platform {

class RecursiveLock {
  public:
    RecursiveLock();
    ~RecursiveLock();
    RecursiveLock(const RecursiveLock&) = delete;
    RecursiveLock& operator=(const RecursiveLock&) = delete;

    void lock();
    void unlock();
    // Takes the lock if no other thread holds it; never waits.
    bool try_lock();

  private:
    // Room for the operating system's object, whose type stays out of this header.
    alignas(std::max_align_t) unsigned char m_native[64];
};

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_LOCK_H
