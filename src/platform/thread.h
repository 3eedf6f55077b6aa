// A thread of our own: the index thread and the asynchronous writer's. Created suspended, so that
// its affinity is set before it runs.
#ifndef K9EREPL_PLATFORM_THREAD_H
#define K9EREPL_PLATFORM_THREAD_H

#include "platform/int_types.h"
#include "platform/system_calls.h"
#include "platform/wait_result.h"

namespace k9erepl::platform {

// Failures are false or kFailed, with LastSystemError().
class Thread {
  public:
    Thread() = default;
    // REQUIRES: not created, or Join returned kSignalled, Terminate true, or Detach was called.
    ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // Creates the thread, suspended; on POSIX it handles none of the host's signals. Its body must
    // let foreign exceptions pass (no noexcept; a catch-all calls PassThreadEnd first): termination
    // on POSIX unwinds the stack of a waiting thread.
    // REQUIRES: not created, or the former thread is gone.
    bool Create(ThreadBody body, void* argument);
    bool IsCreated() const { return m_thread != nullptr; }

    // Bit n of `mask` stands for processor n.
    bool SetAffinity(u64 mask);
    bool Resume();

    // Waits until the thread has ended. Once it returned kSignalled, the thread is gone.
    WaitResult Join(u32 timeoutMs);

    // Ends the thread from outside. Windows stops it at once; POSIX stops it when it waits for an
    // event, and this waits a bounded time for that. False when it still runs: whatever it uses
    // must then stay allocated. Also ends a thread that was never resumed.
    bool Terminate(u32 exitCode);

    // Gives up a thread that could not be terminated.
    void Detach();

  private:
    void* m_thread = nullptr;
};

// To be called first in a catch-all handler that stops exceptions: throws the exception on when it
// is what ends the calling thread, ours or the client's (POSIX only), else does nothing.
void PassThreadEnd();

// The operating system's number of the calling thread, for log lines.
u32 CurrentThreadId();
// Lets another thread run.
void YieldThread();
// Suspends the calling thread for at least `ms` milliseconds.
void SleepMs(u32 ms);

// Waits between two looks at what another thread is about to do: shortly at first, by giving the
// processor away; when that takes long, a millisecond each, which leaves a busy processor to the
// thread that is waited for.
class PollingWait {
  public:
    void Next();

  private:
    static constexpr u32 kYields = 1000;  // about a millisecond on a processor that is free

    u32 m_yields = 0;
};

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_THREAD_H
