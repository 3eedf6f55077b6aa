// The system calls under the asynchronous writer; see async_calls.h.
#include "writers/async_calls.h"

#include <cstddef>
#include <utility>

#include "platform/system_error.h"
#include "support/new_fault.h"

namespace k9erepl::test {

using platform::WaitResult;

namespace {

void SetRefused() {
    platform::SetLastSystemError(
        platform::SystemErrorOf(platform::SystemErrorKind::kInvalidHandle));
}

}  // namespace

void Gate::Shut() {
    const std::lock_guard guard(m_mutex);
    m_open = false;
    m_permits = 0;
}

void Gate::Open() {
    const std::lock_guard guard(m_mutex);
    m_open = true;
    m_changed.notify_all();
}

void Gate::LetOnePass() {
    const std::lock_guard guard(m_mutex);
    ++m_permits;
    m_changed.notify_all();
}

bool Gate::IsHeld() {
    const std::lock_guard guard(m_mutex);
    return HoldsOne();
}

void Gate::WaitUntilHeld() {
    std::unique_lock guard(m_mutex);
    m_changed.wait(guard, [&] { return HoldsOne(); });
}

void Gate::Pass() {
    std::unique_lock guard(m_mutex);
    ++m_waiting;
    m_changed.notify_all();
    m_changed.wait(guard, [&] { return m_open || m_permits > 0; });
    --m_waiting;
    if (!m_open) {
        --m_permits;
    }
}

AsyncCalls::AsyncCalls() : m_below(platform::TheSystemCalls()) {
    s_calls = this;
    m_writeSizes.reserve(10000);  // where memory is made to fail, none is taken here
    m_joinTimeouts.reserve(10);
    m_exitCodesGiven.reserve(10);
    m_affinities.reserve(10);
    platform::SystemCalls& table = platform::TheSystemCalls();
    table.createEvent = CreateEvent;
    table.setEvent = SetEvent;
    table.waitEvent = WaitEvent;
    table.writeFile = WriteFile;
    table.createThread = CreateThread;
    table.setThreadAffinity = SetAffinity;
    table.joinThread = Join;
    table.terminateThread = Terminate;
}

std::vector<u32> AsyncCalls::WriteSizes() {
    const std::lock_guard guard(m_mutex);
    return m_writeSizes;
}

std::optional<u32> AsyncCalls::ThreadResult() {
    const std::lock_guard guard(m_mutex);
    return m_threadResult;
}

void* AsyncCalls::CreateEvent() {
    void* const event = s_calls->m_below.createEvent();
    if (s_calls->m_eventsMade < s_calls->m_events.size()) {
        s_calls->m_events.at(s_calls->m_eventsMade++) = event;
    }
    return event;
}

bool AsyncCalls::SetEvent(void* event) {
    for (std::size_t n = 0; n < s_calls->m_events.size(); ++n) {
        std::atomic<u32>& refusals = s_calls->m_refusals.at(n);
        if (s_calls->m_events.at(n) == event && refusals != 0) {
            --refusals;
            SetRefused();
            return false;
        }
    }
    return s_calls->m_below.setEvent(event);
}

// Only the writing thread waits for ever.
WaitResult AsyncCalls::WaitEvent(void* event, u32 timeoutMs) {
    const bool forTask = timeoutMs == platform::kWaitForever;
    const WaitResult planned =
        forTask ? s_calls->BeginTaskWait() : s_calls->BeginClientWait(timeoutMs);
    if (planned != WaitResult::kSignalled) {
        SetRefused();
        return planned;
    }
    const WaitResult result = s_calls->m_below.waitEvent(event, timeoutMs);
    if (const u32 nth = forTask ? s_calls->m_newToFail.exchange(0) : 0; nth != 0) {
        thread_local std::optional<FailNthNew> fault;
        fault.emplace(nth);
    }
    return result;
}

WaitResult AsyncCalls::BeginTaskWait() {
    m_tasks.Pass();
    return m_taskWait.exchange(WaitResult::kSignalled);
}

WaitResult AsyncCalls::BeginClientWait(u32 timeoutMs) {
    m_clientTimeout = timeoutMs;
    if (m_waitsToAction != 0 && --m_waitsToAction == 0) {
        const std::function<void()> action = std::move(m_action);  // it may plan the next one
        action();
    }
    return m_clientWait.exchange(WaitResult::kSignalled);
}

i64 AsyncCalls::WriteFile(platform::NativeFile file, const void* data, u32 size) {
    if (std::this_thread::get_id() != s_calls->m_client) {
        s_calls->m_writes.Pass();
        const std::lock_guard guard(s_calls->m_mutex);
        s_calls->m_writeSizes.push_back(size);
    }
    return s_calls->m_below.writeFile(file, data, size);
}

void* AsyncCalls::CreateThread(platform::ThreadBody body, void* argument) {
    s_calls->m_body = body;
    s_calls->m_argument = argument;
    return s_calls->m_below.createThread(RunBody, s_calls);
}

u32 AsyncCalls::RunBody(void* calls) {
    auto& self = *static_cast<AsyncCalls*>(calls);
    const u32 result = self.m_body(self.m_argument);
    const std::lock_guard guard(self.m_mutex);
    self.m_threadResult = result;
    return result;
}

bool AsyncCalls::SetAffinity(void* thread, u64 mask) {
    s_calls->m_affinities.push_back(mask);
    return s_calls->m_below.setThreadAffinity(thread, mask);
}

WaitResult AsyncCalls::Join(void* thread, u32 timeoutMs) {
    s_calls->m_joinTimeouts.push_back(timeoutMs);
    const WaitResult planned = std::exchange(s_calls->m_join, WaitResult::kSignalled);
    return planned == WaitResult::kSignalled ? s_calls->m_below.joinThread(thread, timeoutMs)
                                             : planned;
}

bool AsyncCalls::Terminate(void* thread, u32 exitCode) {
    s_calls->m_exitCodesGiven.push_back(exitCode);
    return s_calls->m_terminates && s_calls->m_below.terminateThread(thread, exitCode);
}

}  // namespace k9erepl::test
