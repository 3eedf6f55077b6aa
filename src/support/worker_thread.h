// A thread that works for one object of the library until that object is closed: the index thread
// and the asynchronous writer's thread. Its owner starts it, ends it, and lets it go when it cannot
// be ended. It is here and not in platform because its start record lies in the host's parser
// memory.
#ifndef K9EREPL_SUPPORT_WORKER_THREAD_H
#define K9EREPL_SUPPORT_WORKER_THREAD_H

#include <k9erepl/storage.h>

#include <cassert>
#include <memory>

#include "platform/int_types.h"
#include "platform/thread.h"
#include "support/parser_memory.h"
#include "support/result.h"

namespace k9erepl {

// Nothing here logs: the owner logs failures under its own module's name, and finds the cause of a
// false or of an RC_SYSTEM_ERROR in LastSystemError(). Used under the owner's lock, or by one
// thread at a time. Before it is destroyed, the thread must have ended or have been let go.
class WorkerThread {
  public:
    // Makes the thread, binds it to the processors of `affinity` (bit n stands for processor n; 0:
    // any processor) and lets it run `body(argument)`. The body must let foreign exceptions pass,
    // as Thread::Create asks. `argument` must outlive the thread.
    // Errors: RC_NO_MEMORY, RC_SYSTEM_ERROR; the owner then calls CallOff next.
    // REQUIRES: !IsThere().
    [[nodiscard]] ResultCode Start(platform::ThreadBody body, void* argument, u32 affinity);

    // Takes back a start that failed. Returns false when there is a thread that has not run and
    // never will, but cannot be ended: the owner then calls LetGo. REQUIRES: Start failed.
    [[nodiscard]] bool CallOff();

    // Tells whether a thread was started and has neither been ended nor let go.
    bool IsThere() const { return m_record != nullptr; }
    // The same, but also true for a thread that was let go.
    bool MayStillRun() const { return IsThere() || m_letGo; }

    // Waits for the thread's end. After `timeoutMs` milliseconds, or when waiting fails, calls
    // `tellOverdue(code)` with RC_TIMEOUT or RC_SYSTEM_ERROR and terminates the thread. Returns
    // RC_OK when the thread is gone. Otherwise returns that code, and the thread still runs:
    // whatever it uses must stay allocated, and the owner calls LetGo next.
    // REQUIRES: IsThere(); the caller is not the thread itself.
    template <typename TellOverdue>
    [[nodiscard]] ResultCode End(u32 timeoutMs, TellOverdue tellOverdue);

    // Gives up a thread that cannot be ended or joined. It may run on for ever.
    // REQUIRES: IsThere().
    void LetGo();

    // To be called in a forked child, where the thread is the parent's: forgets it and leaves its
    // record allocated.
    void LeaveToParent() { (void)m_record.release(); }

  private:
    // The result code for a wait that did not see the thread's end.
    [[nodiscard]] static ResultCode CodeOf(platform::WaitResult failedWait);
    // Returns false when the thread still runs.
    [[nodiscard]] bool Terminate();

    // Null while there is no thread.
    std::unique_ptr<platform::Thread, ParserMemoryDeleter> m_record;
    bool m_letGo = false;  // the last thread was let go and may still run
};

template <typename TellOverdue>
ResultCode WorkerThread::End(u32 timeoutMs, TellOverdue tellOverdue) {
    assert(IsThere());
    const platform::WaitResult result = m_record->Join(timeoutMs);
    if (result != platform::WaitResult::kSignalled) {
        const ResultCode rc = CodeOf(result);
        tellOverdue(rc);
        if (!Terminate()) {
            return rc;
        }
    }
    m_record.reset();
    return RC_OK;
}

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_WORKER_THREAD_H
