// The recursive lock: who the calling thread is, and waiting by the system's slim locks.
#include "platform/lock.h"

#include <cstddef>

#include "platform/windows/win32.h"

namespace k9erepl::platform {
namespace {

// Where threads sleep. These places belong to no lock, so that one may be gone when its last
// holder comes to wake others. Locks that share a place wake one another, which costs a look.
struct Place {
    SRWLOCK lock = SRWLOCK_INIT;
    CONDITION_VARIABLE woken = CONDITION_VARIABLE_INIT;
};

constexpr std::size_t kPlaceCount = 16;
constinit Place g_places[kPlaceCount];

Place& PlaceOf(const std::atomic<u32>& use) {
    constexpr std::uintptr_t kSmallestObject = 64;
    return g_places[reinterpret_cast<std::uintptr_t>(&use) / kSmallestObject % kPlaceCount];
}

}  // namespace

void RecursiveLock::lock() {
    LockAs(GetCurrentThreadId());
}

bool RecursiveLock::try_lock() {
    return TryLockAs(GetCurrentThreadId());
}

// Whoever frees the lock after the exchange finds it awaited, and takes the place's lock before it
// wakes: by then this thread sleeps.
void RecursiveLock::TakeAfterWait() {
    Place& place = PlaceOf(m_use);
    AcquireSRWLockExclusive(&place.lock);
    while (m_use.exchange(kAwaited, std::memory_order_acquire) != kFree) {
        SleepConditionVariableSRW(&place.woken, &place.lock, INFINITE, 0);
    }
    ReleaseSRWLockExclusive(&place.lock);
}

void RecursiveLock::Wake(std::atomic<u32>& use) {
    Place& place = PlaceOf(use);
    AcquireSRWLockExclusive(&place.lock);
    ReleaseSRWLockExclusive(&place.lock);
    WakeAllConditionVariable(&place.woken);
}

}  // namespace k9erepl::platform
