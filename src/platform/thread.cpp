// A thread, built on the table of system calls.
#include "platform/thread.h"

#include <cassert>
#include <utility>

#include "platform/system_error.h"

namespace k9erepl::platform {
namespace {

// How many milliseconds a termination waits for the thread to obey. A thread that waits for an
// event obeys at once; one inside a slow write to a disk may need this long to come to its next
// wait.
constexpr u32 kTerminationWaitMs = 2000;

bool FailWithoutThread() {
    SetLastSystemError(SystemErrorOf(SystemErrorKind::kInvalidHandle));
    return false;
}

}  // namespace

Thread::~Thread() {
    assert(!IsCreated());
    Detach();
}

bool Thread::Create(ThreadBody body, void* argument) {
    assert(!IsCreated());
    assert(body != nullptr);
    m_thread = TheSystemCalls().createThread(body, argument);
    return IsCreated();
}

bool Thread::SetAffinity(u64 mask) {
    return IsCreated() ? TheSystemCalls().setThreadAffinity(m_thread, mask) : FailWithoutThread();
}

bool Thread::Resume() {
    return IsCreated() ? TheSystemCalls().resumeThread(m_thread) : FailWithoutThread();
}

WaitResult Thread::Join(u32 timeoutMs) {
    if (!IsCreated()) {
        FailWithoutThread();
        return WaitResult::kFailed;
    }
    const WaitResult result = TheSystemCalls().joinThread(m_thread, timeoutMs);
    if (result == WaitResult::kSignalled) {
        TheSystemCalls().destroyThread(std::exchange(m_thread, nullptr));
    }
    return result;
}

bool Thread::Terminate(u32 exitCode) {
    if (!IsCreated()) {
        return FailWithoutThread();
    }
    return TheSystemCalls().terminateThread(m_thread, exitCode) &&
           Join(kTerminationWaitMs) == WaitResult::kSignalled;
}

void Thread::Detach() {
    if (IsCreated()) {
        TheSystemCalls().destroyThread(std::exchange(m_thread, nullptr));
    }
}

void PollingWait::Next() {
    if (m_yields < kYields) {
        ++m_yields;
        YieldThread();
        return;
    }
    SleepMs(1);
}

}  // namespace k9erepl::platform
