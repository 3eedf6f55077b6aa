// System calls that fail when a test says so: a layer over the table of system calls.
#include "support/fault_injection.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <optional>
#include <type_traits>
#include <utility>

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

    bool Strikes() {
        if (!failure.Strikes()) {
            return false;
        }
        platform::SetLastSystemError(platform::SystemErrorOf(kind));
        return true;
    }
};

// In the order of SystemCall.
using PlannedEntries =
    CallEntries<&SystemCalls::openFile, &SystemCalls::closeFile, &SystemCalls::readFile,
                &SystemCalls::writeFile, &SystemCalls::seekFile, &SystemCalls::tellFile,
                &SystemCalls::setFileEnd, &SystemCalls::fileSize, &SystemCalls::flushFile,
                &SystemCalls::takeOwnerAndMode, &SystemCalls::renameFile, &SystemCalls::linkFile,
                &SystemCalls::removeFile, &SystemCalls::makeDirectory, &SystemCalls::flushDirectory,
                &SystemCalls::allocMemory, &SystemCalls::createEvent, &SystemCalls::setEvent,
                &SystemCalls::waitEvent, &SystemCalls::createThread,
                &SystemCalls::setThreadAffinity, &SystemCalls::resumeThread,
                &SystemCalls::joinThread, &SystemCalls::terminateThread,
                &SystemCalls::performanceFrequency, &SystemCalls::lockFile,
                &SystemCalls::fileIdentity, &SystemCalls::nameIdentity>;
constexpr auto kSystemCallCount = static_cast<std::size_t>(SystemCall::kNameIdentity) + 1;

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

// Counts the call; of those that do not matter for its plan, no more.
bool StrikesNow(SystemCall call, bool matters = true) {
    Plan& plan = PlanOf(call);
    ++plan.calls;
    return matters && plan.Strikes();
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

// The layer that counts the calls and obeys the plans.
class FaultLayer : public CallLayer<FaultLayer> {
  public:
    FaultLayer() {
        PlanEach(PlannedEntries(), std::make_index_sequence<kSystemCallCount>());
        Take<&SystemCalls::readFile, &FaultLayer::Read>();
        Take<&SystemCalls::writeFile, &FaultLayer::Write>();
        Take<&SystemCalls::closeFile, &FaultLayer::Close>();
        Take<&SystemCalls::allocMemory, &FaultLayer::Alloc>();
        Take<&SystemCalls::tickCount, &FaultLayer::TickCount>();
        Take<&SystemCalls::coarseTickCount, &FaultLayer::CoarseTickCount>();
        Take<&SystemCalls::performanceCounter, &FaultLayer::PerformanceCounter>();
        Take<&SystemCalls::performanceFrequency, &FaultLayer::PerformanceFrequency>();
        Take<&SystemCalls::timeStampCounter, &FaultLayer::TimeStamp>();
    }

  private:
    template <auto... kEntries, std::size_t... kCalls>
    void PlanEach(CallEntries<kEntries...> /*entries*/, std::index_sequence<kCalls...> /*calls*/) {
        static_assert(sizeof...(kEntries) == kSystemCallCount);
        (PlanEntry<static_cast<SystemCall>(kCalls), kEntries>(kEntries), ...);
    }
    template <SystemCall kCall, auto kEntry, typename Result, typename... Arguments>
    void PlanEntry(Result (*SystemCalls::* /*entry*/)(Arguments...)) {
        Take<kEntry, &FaultLayer::Planned<kCall, kEntry, Result, Arguments...>>();
    }
    // Counts, fails when the call's plan says so, else passes on.
    template <SystemCall kCall, auto kEntry, typename Result, typename... Arguments>
    Result Planned(Arguments... arguments) {
        return StrikesNow(kCall) ? FailureOf<Result>() : (Below().*kEntry)(arguments...);
    }

    i64 Read(platform::NativeFile file, void* buffer, u32 size) {
        if (StrikesNow(SystemCall::kRead)) {
            return -1;
        }
        const u32 given = Shortened(g_shortRead, size, g_endOfFile);
        // Nothing given is the end of the file already, and the one that was to follow.
        if (((given == 0 && size != 0) || given == size) && g_endOfFile.Strikes()) {
            return 0;
        }
        return Below().readFile(file, buffer, given);
    }
    i64 Write(platform::NativeFile file, const void* data, u32 size) {
        if (StrikesNow(SystemCall::kWrite)) {
            return -1;
        }
        Plan& plan = PlanOf(SystemCall::kWrite);
        const u32 taken = Shortened(g_shortWrite, size, plan.failure);
        // Nothing taken is the failure already that was to follow.
        if (taken == 0 && plan.Strikes()) {
            return -1;
        }
        return Below().writeFile(file, data, taken);
    }
    // The handle is gone all the same. One that stayed open would keep the file in its place on
    // Windows.
    bool Close(platform::NativeFile file) {
        const bool closed = Below().closeFile(file);
        return !StrikesNow(SystemCall::kClose) && closed;
    }
    void* Alloc(std::size_t size) {
        const bool counts = size >= g_minFailedAlloc;
        return StrikesNow(SystemCall::kAlloc, counts) ? nullptr : Below().allocMemory(size);
    }
    u32 TickCount() { return g_tickCount.isSet ? g_tickCount.now.load() : Below().tickCount(); }
    u32 CoarseTickCount() {
        return g_tickCount.isSet ? g_tickCount.now.load() : Below().coarseTickCount();
    }
    i64 PerformanceCounter() {
        return g_performanceCounter.isSet ? g_performanceCounter.now.load()
                                          : Below().performanceCounter();
    }
    bool PerformanceFrequency(i64* ticksPerSecond) {
        if (StrikesNow(SystemCall::kPerformanceFrequency)) {
            return false;
        }
        if (!g_performanceFrequency.isSet) {
            return Below().performanceFrequency(ticksPerSecond);
        }
        *ticksPerSecond = g_performanceFrequency.now;
        return true;
    }
    u64 TimeStamp() {
        return g_timeStamp.isSet ? g_timeStamp.now.fetch_add(g_timeStampStep)
                                 : Below().timeStampCounter();
    }
};

std::optional<FaultLayer> g_layer;

void RequireActive() {
    Require(g_layer.has_value(), "there is no ScopedSystemCalls");
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
    Require(!g_layer, "one ScopedSystemCalls at a time");
    ForgetPlans();
    g_layer.emplace();
}

ScopedSystemCalls::~ScopedSystemCalls() {
    g_layer.reset();
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
