// System calls under the asynchronous writer that a test holds up, refuses or watches. Used by the
// tests of that writer.
#ifndef K9EREPL_TESTS_WRITERS_ASYNC_CALLS_H
#define K9EREPL_TESTS_WRITERS_ASYNC_CALLS_H

#include <array>
#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "platform/int_types.h"
#include "support/call_layer.h"
#include "support/gate.h"

namespace k9erepl::test {

// The events of the writer, in the order in which it makes them.
enum class WriterEvent { kComplete, kNewTask, kRelease };

// To be made after a ScopedSystemCalls, which counts and fails calls as before; to be given up when
// the writing thread has ended. One at a time.
class AsyncCalls : CallLayer<AsyncCalls> {
  public:
    AsyncCalls();

    Gate m_tasks{false};  // before each wait of the writing thread for work; shut at first
    Gate m_writes{true};  // before each system write of the writing thread

    // The next `times` attempts to set the event fail.
    void RefuseToSet(WriterEvent event, u32 times = 1) {
        m_refusals.at(static_cast<std::size_t>(event)) = times;
    }
    // What the next wait of a client, or the writing thread's next wait for work, comes to.
    void EndNextClientWait(platform::WaitResult result) { m_clientWait = result; }
    void EndNextTaskWait(platform::WaitResult result) { m_taskWait = result; }
    // What happens meanwhile: called at the beginning of the client's `nth` wait from now.
    void AtClientWait(u32 nth, std::function<void()> action) {
        m_waitsToAction = nth;
        m_action = std::move(action);
    }
    // The writing thread finds no memory for the `nth` operator new behind its next wait for work.
    void FailThreadsNew(u32 nth) { m_newToFail = nth; }
    // What the next join comes to; without joining.
    void EndNextJoin(platform::WaitResult result) { m_join = result; }
    void RefuseToTerminate() { m_terminates = false; }

    // The sizes of the writing thread's system writes so far.
    std::vector<u32> WriteSizes();
    // The time-out of the last wait of a client, and of every join.
    u32 ClientTimeout() const { return m_clientTimeout; }
    const std::vector<u32>& JoinTimeouts() const { return m_joinTimeouts; }
    const std::vector<u32>& ExitCodesGiven() const { return m_exitCodesGiven; }
    // What the writing thread returned; none while it runs or when it was ended from outside.
    std::optional<u32> ThreadResult();
    const std::vector<u64>& Affinities() const { return m_affinities; }

  private:
    friend CallLayer<AsyncCalls>;

    void* CreateEvent();
    bool SetEvent(void* event);
    platform::WaitResult WaitEvent(void* event, u32 timeoutMs);
    platform::WaitResult BeginTaskWait();
    platform::WaitResult BeginClientWait(u32 timeoutMs);
    i64 WriteFile(platform::NativeFile file, const void* data, u32 size);
    void* CreateThread(platform::ThreadBody body, void* argument);
    static u32 RunBody(void* calls);
    bool SetAffinity(void* thread, u64 mask);
    platform::WaitResult Join(void* thread, u32 timeoutMs);
    bool Terminate(void* thread, u32 exitCode);

    const std::thread::id m_client = std::this_thread::get_id();
    platform::ThreadBody m_body = nullptr;
    void* m_argument = nullptr;
    std::array<void*, 3> m_events{};
    u32 m_eventsMade = 0;
    std::vector<u32> m_joinTimeouts;
    std::vector<u32> m_exitCodesGiven;
    std::vector<u64> m_affinities;
    platform::WaitResult m_join = platform::WaitResult::kSignalled;
    bool m_terminates = true;

    u32 m_waitsToAction = 0;  // 0: none
    std::function<void()> m_action;

    std::array<std::atomic<u32>, 3> m_refusals{};
    std::atomic<u32> m_newToFail{0};  // 0: none
    std::atomic<platform::WaitResult> m_clientWait{platform::WaitResult::kSignalled};
    std::atomic<platform::WaitResult> m_taskWait{platform::WaitResult::kSignalled};
    std::atomic<u32> m_clientTimeout{0};
    std::mutex m_mutex;
    std::vector<u32> m_writeSizes;      // guarded by m_mutex
    std::optional<u32> m_threadResult;  // guarded by m_mutex
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_WRITERS_ASYNC_CALLS_H
