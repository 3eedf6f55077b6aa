// System calls that fail when a test says so: a hook in every entry of the table.
#include "support/fault_injection.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <type_traits>

namespace k9erepl::test {
namespace {

using platform::SystemCalls;
using platform::WaitResult;

constexpr i64 kNever = std::numeric_limits<i64>::max();

// A test that misuses these helpers would test nothing; it ends here, in release builds too.
void Require(bool condition, const char* rule) {
    if (!condition) {
        (void)std::fprintf(stderr, "fault injection: %s\n", rule);
        std::abort();
    }
}

// Strikes when it was asked often enough.
class Countdown {
  public:
    void Set(u32 nth, Repeat repeat) {
        Require(nth > 0, "calls are counted from 1");
        m_repeat = repeat;
        m_left = nth;
    }
    void Stop() { m_left = kNever; }
    bool Strikes() {
        const i64 left = m_left.fetch_sub(1) - 1;
        return left == 0 || (left < 0 && m_repeat == Repeat::kFromThenOn);
    }

  private:
    std::atomic<i64> m_left{kNever};
    std::atomic<Repeat> m_repeat{Repeat::kOnce};
};

struct Plan {
    std::atomic<u32> calls{0};
    Countdown failure;
    std::atomic<SystemErrorKind> kind{SystemErrorKind::kInputOutput};
};

// What the n-th read or write transfers, and what the attempt after it comes to.
struct ShortTransfer {
    Countdown countdown;
    std::atomic<u32> bytes{0};
    std::atomic<bool> staysShort{false};
};

// A clock that runs until a test sets it.
template <typename Number>
struct TestClock {
    std::atomic<bool> isSet{false};
    std::atomic<Number> now{0};

    void Set(Number value) {
        now = value;
        isSet = true;
    }
};

std::atomic<bool> g_active{false};

void RequireActive() {
    Require(g_active, "there is no ScopedSystemCalls");
}

std::array<Plan, kSystemCallCount> g_plans;
ShortTransfer g_shortRead;
ShortTransfer g_shortWrite;
Countdown g_endOfFile;
std::atomic<std::size_t> g_minFailedAlloc{0};
TestClock<u32> g_tickCount;
TestClock<i64> g_performanceCounter;
TestClock<i64> g_performanceFrequency;
TestClock<u64> g_timeStamp;
std::atomic<u64> g_timeStampStep{0};

Plan& PlanOf(SystemCall call) {
    return g_plans.at(static_cast<std::size_t>(call));
}

bool StrikesNow(SystemCall call) {
    Plan& plan = PlanOf(call);
    if (!plan.failure.Strikes()) {
        return false;
    }
    platform::SetLastSystemError(platform::SystemErrorOf(plan.kind));
    return true;
}

template <typename Result>
Result FailureOf() {
    if constexpr (std::is_same_v<Result, WaitResult>) {
        return WaitResult::kFailed;
    } else if constexpr (std::is_same_v<Result, bool>) {
        return false;
    } else if constexpr (std::is_pointer_v<Result>) {
        return nullptr;
    } else {
        return -1;
    }
}

// The hook of one entry: counts, fails when its plan says so, else passes on to the system.
template <SystemCall kCall, auto kEntry, typename Function>
struct Hook;

template <SystemCall kCall, auto kEntry, typename Result, typename... Arguments>
struct Hook<kCall, kEntry, Result (*)(Arguments...)> {
    static Result Call(Arguments... arguments) {
        ++PlanOf(kCall).calls;
        if (StrikesNow(kCall)) {
            return FailureOf<Result>();
        }
        return (platform::NativeSystemCalls().*kEntry)(arguments...);
    }
};

template <SystemCall kCall, auto kEntry>
void Install(SystemCalls& table) {
    using Function = std::remove_reference_t<decltype(table.*kEntry)>;
    table.*kEntry = Hook<kCall, kEntry, Function>::Call;
}

// How much of a transfer of `size` bytes is made; arms `after` when it has to stay short.
u32 Shortened(ShortTransfer& plan, u32 size, Countdown& after) {
    if (!plan.countdown.Strikes() || plan.bytes >= size) {
        return size;
    }
    if (plan.staysShort) {
        after.Set(1, Repeat::kOnce);
    }
    return plan.bytes;
}

i64 ReadHook(platform::NativeFile file, void* buffer, u32 size) {
    ++PlanOf(SystemCall::kRead).calls;
    if (StrikesNow(SystemCall::kRead)) {
        return -1;
    }
    const u32 given = Shortened(g_shortRead, size, g_endOfFile);
    // Nothing given is the end of the file already, and the one that was to follow.
    if ((given == 0 && size != 0) || given == size) {
        if (g_endOfFile.Strikes()) {
            return 0;
        }
    }
    return platform::NativeSystemCalls().readFile(file, buffer, given);
}

i64 WriteHook(platform::NativeFile file, const void* data, u32 size) {
    Plan& plan = PlanOf(SystemCall::kWrite);
    ++plan.calls;
    if (StrikesNow(SystemCall::kWrite)) {
        return -1;
    }
    const u32 taken = Shortened(g_shortWrite, size, plan.failure);
    // Nothing taken is the failure already that was to follow.
    if (taken == 0 && StrikesNow(SystemCall::kWrite)) {
        return -1;
    }
    return platform::NativeSystemCalls().writeFile(file, data, taken);
}

// The handle is gone all the same. One that stayed open would keep the file in its place on
// Windows.
bool CloseHook(platform::NativeFile file) {
    ++PlanOf(SystemCall::kClose).calls;
    const bool closed = platform::NativeSystemCalls().closeFile(file);
    return !StrikesNow(SystemCall::kClose) && closed;
}

void* AllocHook(std::size_t size) {
    Plan& plan = PlanOf(SystemCall::kAlloc);
    ++plan.calls;
    if (size >= g_minFailedAlloc && StrikesNow(SystemCall::kAlloc)) {
        return nullptr;
    }
    return platform::NativeSystemCalls().allocMemory(size);
}

u32 TickCountHook() {
    return g_tickCount.isSet ? g_tickCount.now.load() : platform::NativeSystemCalls().tickCount();
}

u32 CoarseTickCountHook() {
    return g_tickCount.isSet ? g_tickCount.now.load()
                             : platform::NativeSystemCalls().coarseTickCount();
}

i64 PerformanceCounterHook() {
    return g_performanceCounter.isSet ? g_performanceCounter.now.load()
                                      : platform::NativeSystemCalls().performanceCounter();
}

bool PerformanceFrequencyHook(i64* ticksPerSecond) {
    ++PlanOf(SystemCall::kPerformanceFrequency).calls;
    if (StrikesNow(SystemCall::kPerformanceFrequency)) {
        return false;
    }
    if (!g_performanceFrequency.isSet) {
        return platform::NativeSystemCalls().performanceFrequency(ticksPerSecond);
    }
    *ticksPerSecond = g_performanceFrequency.now;
    return true;
}

u64 TimeStampHook() {
    return g_timeStamp.isSet ? g_timeStamp.now.fetch_add(g_timeStampStep)
                             : platform::NativeSystemCalls().timeStampCounter();
}

void InstallSpecialHooks(SystemCalls& table) {
    table.readFile = ReadHook;
    table.writeFile = WriteHook;
    table.closeFile = CloseHook;
    table.allocMemory = AllocHook;
    table.tickCount = TickCountHook;
    table.coarseTickCount = CoarseTickCountHook;
    table.performanceCounter = PerformanceCounterHook;
    table.performanceFrequency = PerformanceFrequencyHook;
    table.timeStampCounter = TimeStampHook;
}

void InstallFileHooks(SystemCalls& table) {
    Install<SystemCall::kOpen, &SystemCalls::openFile>(table);
    Install<SystemCall::kSeek, &SystemCalls::seekFile>(table);
    Install<SystemCall::kTell, &SystemCalls::tellFile>(table);
    Install<SystemCall::kSetEnd, &SystemCalls::setFileEnd>(table);
    Install<SystemCall::kFileSize, &SystemCalls::fileSize>(table);
    Install<SystemCall::kFlush, &SystemCalls::flushFile>(table);
    Install<SystemCall::kTakeOwnerAndMode, &SystemCalls::takeOwnerAndMode>(table);
    Install<SystemCall::kLockFile, &SystemCalls::lockFile>(table);
    Install<SystemCall::kFileIdentity, &SystemCalls::fileIdentity>(table);
    Install<SystemCall::kNameIdentity, &SystemCalls::nameIdentity>(table);
    Install<SystemCall::kRename, &SystemCalls::renameFile>(table);
    Install<SystemCall::kLink, &SystemCalls::linkFile>(table);
    Install<SystemCall::kRemove, &SystemCalls::removeFile>(table);
    Install<SystemCall::kMakeDirectory, &SystemCalls::makeDirectory>(table);
    Install<SystemCall::kFlushDirectory, &SystemCalls::flushDirectory>(table);
}

void InstallThreadHooks(SystemCalls& table) {
    Install<SystemCall::kCreateEvent, &SystemCalls::createEvent>(table);
    Install<SystemCall::kSetEvent, &SystemCalls::setEvent>(table);
    Install<SystemCall::kWaitEvent, &SystemCalls::waitEvent>(table);
    Install<SystemCall::kCreateThread, &SystemCalls::createThread>(table);
    Install<SystemCall::kSetAffinity, &SystemCalls::setThreadAffinity>(table);
    Install<SystemCall::kResumeThread, &SystemCalls::resumeThread>(table);
    Install<SystemCall::kJoinThread, &SystemCalls::joinThread>(table);
    Install<SystemCall::kTerminateThread, &SystemCalls::terminateThread>(table);
}

void ForgetPlans() {
    for (Plan& plan : g_plans) {
        plan.calls = 0;
        plan.failure.Stop();
    }
    g_shortRead.countdown.Stop();
    g_shortWrite.countdown.Stop();
    g_endOfFile.Stop();
    g_minFailedAlloc = 0;
    g_tickCount.isSet = false;
    g_performanceCounter.isSet = false;
    g_performanceFrequency.isSet = false;
    g_timeStamp.isSet = false;
}

void PlanShort(ShortTransfer& plan, u32 nth, u32 bytes, bool staysShort) {
    RequireActive();
    plan.bytes = bytes;
    plan.staysShort = staysShort;
    plan.countdown.Set(nth, Repeat::kOnce);
}

}  // namespace

ScopedSystemCalls::ScopedSystemCalls() {
    Require(!g_active, "one ScopedSystemCalls at a time");
    ForgetPlans();
    SystemCalls& table = platform::TheSystemCalls();
    InstallFileHooks(table);
    InstallThreadHooks(table);
    InstallSpecialHooks(table);
    g_active = true;
}

ScopedSystemCalls::~ScopedSystemCalls() {
    g_active = false;
}

void Fail(SystemCall call, u32 nth, SystemErrorKind kind, Repeat repeat) {
    RequireActive();
    Plan& plan = PlanOf(call);
    plan.kind = kind;
    plan.failure.Set(nth, repeat);
}

void StopFailing(SystemCall call) {
    PlanOf(call).failure.Stop();
    if (call == SystemCall::kRead) {
        g_shortRead.countdown.Stop();
        g_endOfFile.Stop();
    } else if (call == SystemCall::kWrite) {
        g_shortWrite.countdown.Stop();
    }
}

u32 CallCount(SystemCall call) {
    return PlanOf(call).calls;
}

void ShortWrite(u32 nth, u32 bytes, SystemErrorKind kind) {
    PlanOf(SystemCall::kWrite).kind = kind;
    PlanShort(g_shortWrite, nth, bytes, true);
}

void ShortRead(u32 nth, u32 bytes) {
    PlanShort(g_shortRead, nth, bytes, true);
}

void SplitWrite(u32 nth, u32 bytes) {
    Require(bytes > 0, "a part that is split off has bytes");
    PlanShort(g_shortWrite, nth, bytes, false);
}

void SplitRead(u32 nth, u32 bytes) {
    Require(bytes > 0, "a part that is split off has bytes");
    PlanShort(g_shortRead, nth, bytes, false);
}

void FailAlloc(u32 nth, std::size_t minSize, Repeat repeat) {
    g_minFailedAlloc = minSize;
    Fail(SystemCall::kAlloc, nth, SystemErrorKind::kOutOfMemory, repeat);
}

void SetTickCount(u32 ms) {
    RequireActive();
    g_tickCount.Set(ms);
}

void AdvanceTickCount(u32 ms) {
    Require(g_tickCount.isSet, "set the tick count first");
    g_tickCount.now += ms;
}

void SetPerformanceCounter(i64 ticks) {
    RequireActive();
    g_performanceCounter.Set(ticks);
}

void AdvancePerformanceCounter(i64 ticks) {
    Require(g_performanceCounter.isSet, "set the performance counter first");
    g_performanceCounter.now += ticks;
}

void SetPerformanceFrequency(i64 ticksPerSecond) {
    RequireActive();
    g_performanceFrequency.Set(ticksPerSecond);
}

void SetTimeStampCounter(u64 first, u64 step) {
    RequireActive();
    g_timeStampStep = step;
    g_timeStamp.Set(first);
}

}  // namespace k9erepl::test
