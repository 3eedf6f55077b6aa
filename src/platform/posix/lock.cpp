// The recursive lock: a recursive pthread mutex in the bytes that the class keeps for it.
#include "platform/lock.h"

#include <pthread.h>

#include <cassert>
#include <new>

namespace k9erepl::platform {
namespace {

pthread_mutex_t* MutexIn(unsigned char* storage) {
    return std::launder(reinterpret_cast<pthread_mutex_t*>(storage));
}

// These calls fail only for a lock that does not exist, or that this thread may not unlock.
void MustSucceed([[maybe_unused]] int result) {
    assert(result == 0);
}

}  // namespace

RecursiveLock::RecursiveLock() {
    static_assert(sizeof(pthread_mutex_t) <= sizeof m_native);
    static_assert(alignof(pthread_mutex_t) <= kNativeAlignment);
    pthread_mutexattr_t attributes;
    MustSucceed(pthread_mutexattr_init(&attributes));
    MustSucceed(pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE));
    MustSucceed(pthread_mutex_init(new (m_native) pthread_mutex_t, &attributes));
    MustSucceed(pthread_mutexattr_destroy(&attributes));
}

RecursiveLock::~RecursiveLock() {
    MustSucceed(pthread_mutex_destroy(MutexIn(m_native)));
}

void RecursiveLock::lock() {
    MustSucceed(pthread_mutex_lock(MutexIn(m_native)));
}

void RecursiveLock::unlock() {
    MustSucceed(pthread_mutex_unlock(MutexIn(m_native)));
}

bool RecursiveLock::try_lock() {
    return pthread_mutex_trylock(MutexIn(m_native)) == 0;
}

}  // namespace k9erepl::platform
