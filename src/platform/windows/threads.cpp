// Threads.
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

// Shared by the thread and its owner; the last of the two deletes it. The owner of a joined thread
// deletes it at once, for a terminated thread never gives its share back.
struct ThreadRecord {
    ThreadRecord(ThreadBody theBody, void* theArgument) : body(theBody), argument(theArgument) {}

    const ThreadBody body;
    void* const argument;
    std::atomic<int> users{2};

    HANDLE thread = nullptr;  // these two are the owner's
    bool joined = false;
};

void Release(ThreadRecord* record) {
    if (record->users.fetch_sub(1) == 1) {
        delete record;
    }
}

DWORD WINAPI ThreadMain(void* argument) {
    auto* record = static_cast<ThreadRecord*>(argument);
    const DWORD exitCode = record->body(record->argument);
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
    constexpr auto kFailed = static_cast<DWORD>(-1);
    return ResumeThread(RecordOf(thread).thread) != kFailed;
}

WaitResult ThreadJoin(void* thread, u32 timeoutMs) {
    ThreadRecord& record = RecordOf(thread);
    const WaitResult result = WaitFor(record.thread, timeoutMs);
    record.joined = record.joined || result == WaitResult::kSignalled;
    return result;
}

bool ThreadTerminate(void* thread, u32 exitCode) {
    ThreadRecord& record = RecordOf(thread);
    // A thread that has ended refuses to be ended.
    return TerminateThread(record.thread, exitCode) != FALSE ||
           WaitFor(record.thread, 0) == WaitResult::kSignalled;
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
