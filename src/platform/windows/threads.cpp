// Threads: created suspended, stopped from outside only inside their body.
#include <atomic>
#include <limits>
#include <memory>
#include <new>

#include "platform/native_calls.h"
#include "platform/system_error.h"
#include "platform/thread.h"
#include "platform/windows/waiting.h"
#include "platform/windows/win32.h"

namespace k9erepl::platform {
namespace native {
namespace {

// How far a thread has come. Windows stops a thread wherever it is. A thread that is about to begin
// or to end may hold the loader's lock or the heap's: stopped there, it would let nobody load,
// allocate or end any more. We therefore stop a thread only inside its body, and a thread that has
// not come that far leaves without running it. Whoever changes the progress to kStopped or away
// from kInBody first decides.
enum class Progress { kSuspended, kResumed, kInBody, kLeaving, kStopped };

constexpr auto kResumeFailed = static_cast<DWORD>(-1);

// Shared by the thread and its owner; the last of the two to give it up deletes it. The owner of a
// joined thread deletes it at once, because a terminated thread never gives its share back.
struct ThreadRecord {
    ThreadRecord(ThreadBody theBody, void* theArgument) : body(theBody), argument(theArgument) {}

    const ThreadBody body;
    void* const argument;
    std::atomic<int> users{2};  // how many of the thread and its owner use the record
    std::atomic<Progress> progress{Progress::kSuspended};
    std::atomic<DWORD> stoppedExitCode{0};  // of a thread that leaves without its body

    // Used by the owner alone.
    HANDLE thread = nullptr;
    bool joined = false;
};

void Release(ThreadRecord* record) {
    if (record->users.fetch_sub(1) == 1) {
        delete record;
    }
}

bool Advance(ThreadRecord& record, Progress from, Progress to) {
    return record.progress.compare_exchange_strong(from, to);
}

DWORD RunBody(ThreadRecord& record) {
    if (!Advance(record, Progress::kResumed, Progress::kInBody)) {
        return record.stoppedExitCode;
    }
    const DWORD exitCode = record.body(record.argument);
    if (!Advance(record, Progress::kInBody, Progress::kLeaving)) {
        Sleep(INFINITE);  // the thread is being stopped and must not run on
    }
    return exitCode;
}

DWORD WINAPI ThreadMain(void* argument) {
    auto* record = static_cast<ThreadRecord*>(argument);
    const DWORD exitCode = RunBody(*record);
    Release(record);
    return exitCode;
}

ThreadRecord& RecordOf(void* thread) {
    return *static_cast<ThreadRecord*>(thread);
}

}  // namespace

void* ThreadCreate(ThreadBody body, void* argument) {
    std::unique_ptr<ThreadRecord> record(new (std::nothrow) ThreadRecord(body, argument));
    if (record == nullptr) {
        SetLastSystemError(SystemErrorOf(SystemErrorKind::kOutOfMemory));
        return nullptr;
    }
    record->thread = CreateThread(nullptr, 0, ThreadMain, record.get(), CREATE_SUSPENDED, nullptr);
    return record->thread != nullptr ? record.release() : nullptr;
}

bool ThreadSetAffinity(void* thread, u64 mask) {
    if (mask > std::numeric_limits<DWORD_PTR>::max()) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    return SetThreadAffinityMask(RecordOf(thread).thread, static_cast<DWORD_PTR>(mask)) != 0;
}

bool ThreadResume(void* thread) {
    ThreadRecord& record = RecordOf(thread);
    Advance(record, Progress::kSuspended, Progress::kResumed);
    if (ResumeThread(record.thread) != kResumeFailed) {
        return true;
    }
    Advance(record, Progress::kResumed, Progress::kSuspended);
    return false;
}

WaitResult ThreadJoin(void* thread, u32 timeoutMs) {
    ThreadRecord& record = RecordOf(thread);
    const WaitResult result = WaitFor(record.thread, timeoutMs);
    record.joined = record.joined || result == WaitResult::kSignalled;
    return result;
}

bool ThreadTerminate(void* thread, u32 exitCode) {
    ThreadRecord& record = RecordOf(thread);
    record.stoppedExitCode = exitCode;
    if (Advance(record, Progress::kResumed, Progress::kStopped)) {
        return true;  // the thread leaves without running its body
    }
    if (Advance(record, Progress::kSuspended, Progress::kStopped)) {
        // The thread must run to leave. The system may still be setting it up: stopped there, it
        // takes the whole process with it under 32-bit Wine.
        return ResumeThread(record.thread) != kResumeFailed;
    }
    if (!Advance(record, Progress::kInBody, Progress::kStopped)) {
        return true;  // the thread is leaving, or was stopped before
    }
    return TerminateThread(record.thread, exitCode) != FALSE;
}

void ThreadDestroy(void* thread) {
    ThreadRecord* record = &RecordOf(thread);
    CloseHandle(record->thread);
    if (record->joined) {
        delete record;
    } else {
        Release(record);
    }
}

}  // namespace native

// Nothing to do: Windows ends threads without an exception.
void PassThreadEnd() {}

u32 CurrentThreadId() {
    return GetCurrentThreadId();
}

void YieldThread() {
    SwitchToThread();
}

void SleepMs(u32 ms) {
    Sleep(ms);
}

}  // namespace k9erepl::platform
