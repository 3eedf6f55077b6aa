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
    // Room for the operating system's object, whose type stays out of this header. Not aligned as
    // std::max_align_t: on 32-bit Windows that type depends on the headers that came before, and
    // objects with a lock in them would be laid out differently from file to file.
    static constexpr std::size_t kNativeAlignment = 8;
    alignas(kNativeAlignment) unsigned char m_native[64];
};

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_LOCK_H
