// The recursive lock: who the calling thread is, and waiting by the kernel's futex.
#include "platform/lock.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace k9erepl::platform {
namespace {

static_assert(sizeof(std::atomic<u32>) == sizeof(u32));

// The address of the thread's own record in the C library: one load, where a thread_local variable
// of a library that is loaded at run time costs a call.
std::uintptr_t OwnMark() {
    return reinterpret_cast<std::uintptr_t>(__builtin_thread_pointer());
}

// Callers may still want to know why a call before this one failed.
void Futex(std::atomic<u32>& word, int operation, u32 value) {
    const int error = errno;
    (void)syscall(SYS_futex, &word, operation, value, nullptr, nullptr, 0);
    errno = error;
}

}  // namespace

void RecursiveLock::lock() {
    LockAs(OwnMark());
}

bool RecursiveLock::try_lock() {
    return TryLockAs(OwnMark());
}

void RecursiveLock::TakeAfterWait() {
    while (m_use.exchange(kAwaited, std::memory_order_acquire) != kFree) {
        Futex(m_use, FUTEX_WAIT_PRIVATE, kAwaited);
    }
}

void RecursiveLock::Wake(std::atomic<u32>& use) {
    constexpr u32 kOneThread = 1;
    Futex(use, FUTEX_WAKE_PRIVATE, kOneThread);
}

}  // namespace k9erepl::platform
