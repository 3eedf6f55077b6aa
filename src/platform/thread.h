// A thread of our own: the index thread or the asynchronous writer's thread. It is created
// suspended, so that its affinity is set before it runs. support/worker_thread.h uses it.
#ifndef K9EREPL_PLATFORM_THREAD_H
#define K9EREPL_PLATFORM_THREAD_H

#include "platform/int_types.h"
#include "platform/system_calls.h"
#include "platform/wait_result.h"

namespace k9erepl::platform {

// Failures are false or kFailed, with LastSystemError(). One thread at a time makes the owner's
// calls; the thread itself may only call Detach, since it cannot wait for its own end.
class Thread {
  public:
    Thread() = default;
    // REQUIRES: the thread was not created, or is gone: Join has returned kSignalled, Terminate has
    // returned true, or Detach was called.
    ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // Creates the thread, suspended. On POSIX it handles none of the host's signals. Its body must
    // let foreign exceptions pass (no noexcept; a catch-all calls PassThreadEnd first), because
    // termination on POSIX unwinds the stack of a waiting thread. `argument` must outlive the
    // thread.
    // REQUIRES: not created, or the former thread is gone.
    [[nodiscard]] bool Create(ThreadBody body, void* argument);
    bool IsCreated() const { return m_thread != nullptr; }

    // Binds the thread to processors: bit n of `mask` stands for processor n. Fails when the system
    // knows none of them.
    [[nodiscard]] bool SetAffinity(u64 mask);
    // Lets the thread run its body.
    [[nodiscard]] bool Resume();

    // Waits at most `timeoutMs` milliseconds, or kWaitForever, until the thread has ended. After
    // kSignalled the thread is gone, and Create may follow.
    [[nodiscard]] WaitResult Join(u32 timeoutMs);

    // Ends the thread from outside and waits at most 2 seconds for its end. Windows stops it at
    // once, wherever it is in its body; on POSIX it ends when it next waits for an event. Returns
    // false when it still runs: whatever it uses must then stay allocated. Also ends a thread that
    // was never resumed. Only Windows keeps `exitCode`.
    [[nodiscard]] bool Terminate(u32 exitCode);

    // Gives up a thread that could not be terminated: it runs on by itself.
    void Detach();

  private:
    void* m_thread = nullptr;  // the system's record; null when there is no thread
};

// To be called first in a catch-all handler that stops exceptions. Throws the exception again when
// it is what ends the calling thread, ours or the client's (POSIX only); otherwise does nothing.
void PassThreadEnd();

// The operating system's number of the calling thread, for log lines.
u32 CurrentThreadId();
// Lets another thread run.
void YieldThread();
// Suspends the calling thread for at least `ms` milliseconds.
void SleepMs(u32 ms);

// Waits between two looks at what another thread is about to do. At first each wait is short: it
// gives the processor away. When the other thread takes long, each wait lasts a millisecond, which
// leaves a busy processor to the thread that we wait for.
class PollingWait {
  public:
    void Next();

  private:
    static constexpr u32 kYields = 1000;  // about a millisecond on a processor that is free

    u32 m_yields = 0;  // short waits so far, up to kYields
};

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_THREAD_H
