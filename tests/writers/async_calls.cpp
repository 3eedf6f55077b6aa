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

AsyncCalls::AsyncCalls() {
    m_writeSizes.reserve(10000);  // where memory is made to fail, none is taken here
    m_joinTimeouts.reserve(10);
    m_exitCodesGiven.reserve(10);
    m_affinities.reserve(10);
    Take<&CallTable::createEvent, &AsyncCalls::CreateEvent>();
    Take<&CallTable::setEvent, &AsyncCalls::SetEvent>();
    Take<&CallTable::waitEvent, &AsyncCalls::WaitEvent>();
    Take<&CallTable::writeFile, &AsyncCalls::WriteFile>();
    Take<&CallTable::createThread, &AsyncCalls::CreateThread>();
    Take<&CallTable::setThreadAffinity, &AsyncCalls::SetAffinity>();
    Take<&CallTable::joinThread, &AsyncCalls::Join>();
    Take<&CallTable::terminateThread, &AsyncCalls::Terminate>();
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
    void* const event = Below().createEvent();
    m_events.at(m_eventsMade++ % m_events.size()) = event;  // those of the latest writer
    return event;
}

bool AsyncCalls::SetEvent(void* event) {
    for (std::size_t n = 0; n < m_events.size(); ++n) {
        std::atomic<u32>& refusals = m_refusals.at(n);
        if (m_events.at(n) == event && refusals != 0) {
            --refusals;
            SetRefused();
            return false;
        }
    }
    return Below().setEvent(event);
}

// Only the writing thread waits for ever.
WaitResult AsyncCalls::WaitEvent(void* event, u32 timeoutMs) {
    const bool forTask = timeoutMs == platform::kWaitForever;
    const WaitResult planned = forTask ? BeginTaskWait() : BeginClientWait(timeoutMs);
    if (planned != WaitResult::kSignalled) {
        SetRefused();
        return planned;
    }
    const WaitResult result = Below().waitEvent(event, timeoutMs);
    if (const u32 nth = forTask ? m_newToFail.exchange(0) : 0; nth != 0) {
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
    if (std::this_thread::get_id() != m_client) {
        m_writes.Pass();
        const std::lock_guard guard(m_mutex);
        m_writeSizes.push_back(size);
    }
    return Below().writeFile(file, data, size);
}

void* AsyncCalls::CreateThread(platform::ThreadBody body, void* argument) {
    m_body = body;
    m_argument = argument;
    {
        const std::lock_guard guard(m_mutex);
        m_threadResult.reset();  // of a thread that has ended
    }
    return Below().createThread(RunBody, this);
}

u32 AsyncCalls::RunBody(void* calls) {
    auto& self = *static_cast<AsyncCalls*>(calls);
    const u32 result = self.m_body(self.m_argument);
    const std::lock_guard guard(self.m_mutex);
    self.m_threadResult = result;
    return result;
}

bool AsyncCalls::SetAffinity(void* thread, u64 mask) {
    m_affinities.push_back(mask);
    return Below().setThreadAffinity(thread, mask);
}

WaitResult AsyncCalls::Join(void* thread, u32 timeoutMs) {
    m_joinTimeouts.push_back(timeoutMs);
    const WaitResult planned = std::exchange(m_join, WaitResult::kSignalled);
    return planned == WaitResult::kSignalled ? Below().joinThread(thread, timeoutMs) : planned;
}

bool AsyncCalls::Terminate(void* thread, u32 exitCode) {
    m_exitCodesGiven.push_back(exitCode);
    return m_terminates && Below().terminateThread(thread, exitCode);
}

}  // namespace k9erepl::test
