// Threads: each waits at a gate until it is resumed, is joined with a time-out, and is ended from
// outside at its next wait for an event.
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cassert>
#include <cerrno>
#include <exception>
#include <memory>
#include <mutex>
#include <new>

#include "platform/native_calls.h"
#include "platform/posix/monitor.h"
#include "platform/posix/thread_termination.h"
#include "platform/thread.h"

namespace k9erepl::platform {
namespace native {
namespace {

// Shared by the thread and its owner; the last of the two to give it up deletes it.
struct ThreadRecord {
    ThreadRecord(ThreadBody theBody, void* theArgument) : body(theBody), argument(theArgument) {}

    const ThreadBody body;
    void* const argument;
    pthread_t thread = {};
    std::atomic<int> users{2};         // how many of the thread and its owner use the record
    std::atomic<bool> mustEnd{false};  // ThreadTerminate was called

    Monitor monitor;  // guards what follows
    bool resumed = false;
    bool ended = false;
    Monitor* waitingWith = nullptr;  // the event's monitor, while the thread waits for an event

    bool joined = false;  // used by the owner alone
};

// The record of the calling thread; null in threads that are not ours.
thread_local ThreadRecord* t_ownRecord = nullptr;

void Release(ThreadRecord* record) {
    if (record->users.fetch_sub(1) == 1) {
        delete record;
    }
}

// Waits until the thread is resumed. Returns false when it was terminated before that.
bool PassGate(ThreadRecord& record) {
    const Deadline never(kWaitForever);
    const std::lock_guard lock(record.monitor);
    while (!record.resumed && !record.mustEnd) {
        (void)record.monitor.WaitUntil(never);  // dropped: the condition is asked again
    }
    return !record.mustEnd;
}

void RunBody(ThreadRecord& record) {
    try {
        record.body(record.argument);
    } catch (const ThreadTermination&) {
        // Everything that the body held is released; the thread ends like one that returned.
    }
}

void MarkEnded(ThreadRecord& record) {
    const std::lock_guard lock(record.monitor);
    record.ended = true;
    record.monitor.NotifyAll();
}

void* ThreadMain(void* argument) {
    auto* record = static_cast<ThreadRecord*>(argument);
    t_ownRecord = record;
    if (PassGate(*record)) {
        RunBody(*record);
    }
    MarkEnded(*record);
    Release(record);
    return nullptr;
}

// The signals that a thread of ours must not handle: the host's threads are there for them. Those
// that a thread causes itself, such as SIGSEGV, are not in the set.
sigset_t SignalsOfTheHost() {
    sigset_t signals;
    sigfillset(&signals);
    for (const int own : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) {
        sigdelset(&signals, own);
    }
    return signals;
}

// A thread inherits the signal mask of its creator, so that blocks the signals for a moment.
int StartWithoutSignals(ThreadRecord& record) {
    const sigset_t blocked = SignalsOfTheHost();
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    const int result = pthread_create(&record.thread, nullptr, ThreadMain, &record);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return result;
}

ThreadRecord& RecordOf(void* thread) {
    return *static_cast<ThreadRecord*>(thread);
}

}  // namespace

InterruptibleWait::InterruptibleWait(Monitor& monitor) {
    if (t_ownRecord != nullptr) {
        const std::lock_guard lock(t_ownRecord->monitor);
        t_ownRecord->waitingWith = &monitor;
    }
}

InterruptibleWait::~InterruptibleWait() {
    if (t_ownRecord != nullptr) {
        const std::lock_guard lock(t_ownRecord->monitor);
        t_ownRecord->waitingWith = nullptr;
    }
}

bool InterruptibleWait::MustEnd() const {
    return t_ownRecord != nullptr && t_ownRecord->mustEnd && std::uncaught_exceptions() == 0;
}

void* ThreadCreate(ThreadBody body, void* argument) {
    std::unique_ptr<ThreadRecord> record(new (std::nothrow) ThreadRecord(body, argument));
    if (record == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    if (!record->monitor.Init()) {
        return nullptr;
    }
    const int result = StartWithoutSignals(*record);
    if (result != 0) {
        errno = result;
        return nullptr;
    }
    return record.release();
}

bool ThreadSetAffinity(void* thread, u64 mask) {
    cpu_set_t processors;
    CPU_ZERO(&processors);
    for (unsigned n = 0; n < 64; ++n) {
        if ((mask >> n & 1) != 0) {
            CPU_SET(n, &processors);
        }
    }
    const int result =
        pthread_setaffinity_np(RecordOf(thread).thread, sizeof processors, &processors);
    errno = result != 0 ? result : errno;
    return result == 0;
}

bool ThreadResume(void* thread) {
    ThreadRecord& record = RecordOf(thread);
    const std::lock_guard lock(record.monitor);
    record.resumed = true;
    record.monitor.NotifyAll();
    return true;
}

WaitResult ThreadJoin(void* thread, u32 timeoutMs) {
    ThreadRecord& record = RecordOf(thread);
    const Deadline deadline(timeoutMs);
    {
        const std::lock_guard lock(record.monitor);
        while (!record.ended && record.monitor.WaitUntil(deadline)) {
        }
        if (!record.ended) {
            return WaitResult::kTimedOut;
        }
    }
    if (!record.joined) {
        pthread_join(record.thread, nullptr);
        record.joined = true;
    }
    return WaitResult::kSignalled;
}

// The exit code is for Windows: here nobody can see a thread's code.
bool ThreadTerminate(void* thread, u32 /*exitCode*/) {
    ThreadRecord& record = RecordOf(thread);
    const std::lock_guard lock(record.monitor);
    record.mustEnd = true;
    record.monitor.NotifyAll();
    // While the record is locked the thread cannot leave its wait, so the event's monitor exists.
    if (record.waitingWith != nullptr) {
        const std::lock_guard waitLock(*record.waitingWith);
        record.waitingWith->NotifyAll();
    }
    return true;
}

void ThreadDestroy(void* thread) {
    ThreadRecord& record = RecordOf(thread);
    if (!record.joined) {
        pthread_detach(record.thread);
    }
    Release(&record);
}

}  // namespace native

void PassThreadEnd() {
    if (std::current_exception() == nullptr) {
        // Not a C++ exception: the thread was cancelled, or its host called pthread_exit.
        throw;
    }
    try {
        throw;
    } catch (const native::ThreadTermination&) {
        throw;
    } catch (...) {
        return;
    }
}

u32 CurrentThreadId() {
    return static_cast<u32>(syscall(SYS_gettid));
}

void YieldThread() {
    sched_yield();
}

void SleepMs(u32 ms) {
    timespec left = {.tv_sec = static_cast<time_t>(ms / 1000),
                     .tv_nsec = static_cast<long>(ms % 1000) * 1'000'000};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

}  // namespace k9erepl::platform
