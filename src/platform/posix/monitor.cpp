// A mutex with a condition variable; see the header.
#include "platform/posix/monitor.h"

#include <cassert>
#include <cerrno>

#include "platform/wait_result.h"

namespace k9erepl::platform::native {
namespace {

constexpr long kNanosecondsPerSecond = 1'000'000'000;
constexpr long kNanosecondsPerMillisecond = 1'000'000;
constexpr u32 kMillisecondsPerSecond = 1000;

// Pthread calls return their error; our callers look for it in errno.
bool Succeeded(int result) {
    if (result != 0) {
        errno = result;
    }
    return result == 0;
}

void MustSucceed([[maybe_unused]] int result) {
    assert(result == 0);
}

bool InitCondition(pthread_cond_t* condition) {
    pthread_condattr_t attributes;
    if (!Succeeded(pthread_condattr_init(&attributes))) {
        return false;
    }
    MustSucceed(pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC));
    const bool made = Succeeded(pthread_cond_init(condition, &attributes));
    MustSucceed(pthread_condattr_destroy(&attributes));
    return made;
}

}  // namespace

Deadline::Deadline(u32 timeoutMs) : m_never(timeoutMs == kWaitForever) {
    if (m_never) {
        return;
    }
    clock_gettime(CLOCK_MONOTONIC, &m_moment);
    m_moment.tv_sec += timeoutMs / kMillisecondsPerSecond;
    m_moment.tv_nsec += (timeoutMs % kMillisecondsPerSecond) * kNanosecondsPerMillisecond;
    if (m_moment.tv_nsec >= kNanosecondsPerSecond) {
        m_moment.tv_nsec -= kNanosecondsPerSecond;
        ++m_moment.tv_sec;
    }
}

bool Monitor::Init() {
    assert(!m_ready);
    if (!Succeeded(pthread_mutex_init(&m_mutex, nullptr))) {
        return false;
    }
    if (!InitCondition(&m_changed)) {
        MustSucceed(pthread_mutex_destroy(&m_mutex));
        return false;
    }
    m_ready = true;
    return true;
}

Monitor::~Monitor() {
    if (m_ready) {
        MustSucceed(pthread_cond_destroy(&m_changed));
        MustSucceed(pthread_mutex_destroy(&m_mutex));
    }
}

void Monitor::lock() {
    MustSucceed(pthread_mutex_lock(&m_mutex));
}

void Monitor::unlock() {
    MustSucceed(pthread_mutex_unlock(&m_mutex));
}

void Monitor::NotifyAll() {
    MustSucceed(pthread_cond_broadcast(&m_changed));
}

bool Monitor::WaitUntil(const Deadline& deadline) {
    const int result = deadline.IsNever()
                           ? pthread_cond_wait(&m_changed, &m_mutex)
                           : pthread_cond_timedwait(&m_changed, &m_mutex, &deadline.Moment());
    assert(result == 0 || result == ETIMEDOUT);
    return result == 0;
}

}  // namespace k9erepl::platform::native
