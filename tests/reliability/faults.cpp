// The families of failing calls: each call of a run fails, each transfer falls short, the disk is
// full at every 512 bytes, each allocation finds no memory. What the client of fault_trial.h meets
// must be documented, and it must get on from there.
#include <k9erepl/storage.h>

#include <algorithm>
#include <array>
#include <atomic>

#include "reliability/family.h"
#include "reliability/fault_trial.h"
#include "reliability/steady_calls.h"
#include "support/new_fault.h"

namespace k9erepl::reliability {

namespace {

using test::SystemCall;
using test::SystemErrorKind;

// The runs of one group.
class Trials {
  public:
    Trials(GroupRun& run, const TrialPlan& plan) : m_run(run), m_plan(plan) {}

    MemoryDisk& Disk() { return m_disk; }
    TrialResult Run(Fault& fault) { return RunTrial(m_disk, m_plan, fault, m_run.Seed()); }
    // The run in which nothing goes wrong is case 0.
    TrialResult Undisturbed(Fault& none) {
        TrialResult result = Run(none);
        m_run.Case(0, [&] { return result.problem; });
        return result;
    }
    // Counts what became of a run. `what`: what went wrong in it.
    Problem Judge(const TrialResult& result, const std::string& what) {
        m_run.Count("answered a failure", result.failures > 0 ? 1 : 0);
        m_run.Count("went on without reopening", result.wentOn ? 1 : 0);
        m_run.Count("went on reopened", result.reopened ? 1 : 0);
        m_run.Count("damaged as documented", result.damaged ? 1 : 0);
        return result.problem.empty() ? "" : what + ": " + result.problem;
    }

  private:
    GroupRun& m_run;
    const TrialPlan m_plan;
    const SteadyCalls m_steady;
    MemoryDisk m_disk;
};

// One call on a file or a name, or all from one on, end in another way than they should.
class GateFault final : public Fault {
  public:
    // Told the number of each call, from 1 on; null strikes never and only counts.
    using Strike = std::function<std::optional<Permit>(u64 number, const Attempt& attempt)>;

    // `invisible`: the library must make up for it.
    GateFault(MemoryDisk& disk, Strike strike, bool invisible = false)
        : m_disk(disk), m_strike(std::move(strike)), m_invisible(invisible) {
        m_disk.SetGate([this](const Attempt& attempt) { return Decide(attempt); });
    }
    ~GateFault() override { m_disk.SetGate(nullptr); }
    GateFault(const GateFault&) = delete;
    GateFault& operator=(const GateFault&) = delete;

    void Resume() override { m_acts = true; }
    void Suspend() override { m_acts = false; }
    void Heal() override { m_healed = true; }
    bool Struck() const override { return m_struck; }
    bool MayHurtWriter() const override { return m_hurtWriter; }
    bool Explains(Operation operation, u32 code) const override {
        const bool reads = operation == Operation::kLoad || operation == Operation::kEnumerate ||
                           operation == Operation::kClear;
        const u32 byReads = operation == Operation::kLoad ? RC_SHORT_READ : RC_BAD_DATA;
        return !m_invisible &&
               (code == RC_SYSTEM_ERROR || (reads && (code == RC_FILE_CORRUPT || code == byReads)));
    }

    u64 Calls() const { return m_calls; }
    // The first call that it struck.
    const std::string& Where() const { return m_where; }

  private:
    // Calls come here one at a time.
    Permit Decide(const Attempt& attempt) {
        if (!m_acts || m_healed) {
            return {};
        }
        const u64 number = ++m_calls;
        const std::optional<Permit> permit = m_strike ? m_strike(number, attempt) : std::nullopt;
        if (!permit) {
            return {};
        }
        if (!m_struck) {
            m_where = std::string(NameOf(attempt.call)) + " " + attempt.name;
        }
        m_struck = true;
        m_hurtWriter = m_hurtWriter || (!m_invisible && attempt.name == StoragePath());
        return *permit;
    }

    MemoryDisk& m_disk;
    const Strike m_strike;
    const bool m_invisible;
    std::atomic<bool> m_acts{false};
    std::atomic<bool> m_healed{false};
    std::atomic<bool> m_struck{false};
    std::atomic<bool> m_hurtWriter{false};
    u64 m_calls = 0;
    std::string m_where;
};

// --- Failing calls: once or from then on, with each of the errors that disks and systems give. An
// interrupted call and a short transfer must not be noticed.

constexpr std::array<SystemErrorKind, 6> kErrors = {
    SystemErrorKind::kNoSpace,    SystemErrorKind::kInputOutput,  SystemErrorKind::kInterrupted,
    SystemErrorKind::kFileTooBig, SystemErrorKind::kAccessDenied, SystemErrorKind::kOutOfMemory};
constexpr std::size_t kShort = kErrors.size();
constexpr std::array<const char*, kShort + 1> kTroubles = {
    "no space", "I/O error", "interruption", "too big", "no access", "no memory", "short"};

struct Trouble {
    u64 nth = 0;
    std::size_t kind = 0;
    bool sticky = false;

    bool Is(SystemErrorKind error) const { return kind != kShort && kErrors.at(kind) == error; }
    bool Invisible() const { return kind == kShort || Is(SystemErrorKind::kInterrupted); }
    // A disk that gets full and a file that gets too big take a part of the write first.
    bool IsTorn() const {
        return Is(SystemErrorKind::kNoSpace) || Is(SystemErrorKind::kFileTooBig);
    }
    // How the call ends, if in another way than it should. An interrupted call is not interrupted
    // again at once.
    std::optional<Permit> Outcome(u64 number, const Attempt& attempt) const {
        const bool later = sticky && number > nth && (!Invisible() || number % 2 == nth % 2);
        if (IsTorn() && attempt.call == SystemCall::kWrite && number == nth) {
            return Permit{{}, attempt.size / 2};
        }
        if (number != nth && !later && !(IsTorn() && number == nth + 1)) {
            return std::nullopt;
        }
        return kind == kShort ? Permit{{}, (attempt.size + 1) / 2} : Permit{kErrors.at(kind)};
    }
};

void RunFailingCalls(GroupRun& run) {
    Trials trials(run, {.async = run.Number() % 2 == 1,
                        .forceFlush = run.Number() % 3 != 0,
                        .commitBarrier = run.Number() % 3 == 2,
                        .moreSettings = ""});
    u64 calls = 0;
    {
        GateFault none(trials.Disk(), nullptr);
        trials.Undisturbed(none);
        calls = none.Calls();
    }
    for (u64 number = 1; number <= calls; ++number) {
        run.Case(number, [&] {
            const u64 choice = Mix(run.Seed(), number);
            const Trouble trouble{number, static_cast<std::size_t>(choice % kTroubles.size()),
                                  choice / kTroubles.size() % 2 == 1};
            GateFault fault(
                trials.Disk(),
                [&](u64 call, const Attempt& attempt) { return trouble.Outcome(call, attempt); },
                trouble.Invisible());
            const TrialResult result = trials.Run(fault);
            return trials.Judge(result, std::string(kTroubles.at(trouble.kind)) + " at call " +
                                            std::to_string(number) + " (" + fault.Where() + ")" +
                                            (trouble.sticky ? " and from then on" : ""));
        });
    }
}

const RegisteredFamily kFailingCalls({.name = "io-errors",
                                      .title = "I/O error at every call, once and for ever",
                                      .cases = 5000,
                                      .runGroup = &RunFailingCalls});

// --- Short transfers: reads and writes that deliver less than asked, or are interrupted, one of
// them or all. What the run leaves must be the bytes of the undisturbed one. A transfer of nothing
// is an error of its own: a system that takes nothing has no room, and a file that gives nothing
// has ended.

enum class Delivery : u8 { kNothing, kOneByte, kHalf, kAllButOne, kInterrupted };
constexpr std::array<const char*, 5> kDeliveries = {"nothing", "one byte", "half",
                                                    "all but one byte", "an interruption"};

Permit Deliver(Delivery delivery, u32 size) {
    switch (delivery) {
        case Delivery::kNothing:
            return {{}, 0};
        case Delivery::kOneByte:
            return {{}, 1};
        case Delivery::kHalf:
            return {{}, std::max(size / 2, 1U)};
        case Delivery::kAllButOne:
            return {{}, std::max(size, 2U) - 1};
        case Delivery::kInterrupted:
            break;
    }
    return {SystemErrorKind::kInterrupted};
}

// Counts transfers only; 0 strikes at all of them. Every second interruption is then followed by a
// transfer.
GateFault::Strike AtTransfer(u64* transfers, u64 nth, Delivery delivery) {
    return [=](u64 /*call*/, const Attempt& attempt) -> std::optional<Permit> {
        if (attempt.call != SystemCall::kRead && attempt.call != SystemCall::kWrite) {
            return std::nullopt;
        }
        const bool meets = ++*transfers == nth || nth == 0;
        const bool spared = nth == 0 && delivery == Delivery::kInterrupted && *transfers % 2 == 0;
        return meets && !spared ? std::optional(Deliver(delivery, attempt.size)) : std::nullopt;
    };
}

void RunShortTransfers(GroupRun& run) {
    const bool async = run.Number() % 2 == 1;
    Trials trials(run, {.async = async,
                        .forceFlush = run.Number() % 3 == 0,
                        .commitBarrier = run.Number() % 6 == 0,
                        .preallocates = false,
                        .moreSettings = ""});
    // How far the index comes follows from what an asynchronous writer has written by then.
    const auto bytesOf = [=](const TrialResult& result) {
        return async ? result.left.Find(StoragePath())->Hash() : result.left.Hash();
    };
    u64 transfers = 0;
    TrialResult undisturbed;
    {
        GateFault none(trials.Disk(), AtTransfer(&transfers, ~u64{0}, Delivery::kNothing));
        undisturbed = trials.Undisturbed(none);
    }
    const u64 counted = transfers;
    const auto disturb = [&](u64 nth, Delivery delivery) {
        transfers = 0;
        GateFault fault(trials.Disk(), AtTransfer(&transfers, nth, delivery),
                        delivery != Delivery::kNothing);
        TrialResult result = trials.Run(fault);
        if (result.problem.empty() && delivery != Delivery::kNothing &&
            bytesOf(result) != bytesOf(undisturbed)) {
            result.problem = "other bytes in the files";
        }
        const std::string which = nth == 0 ? "every transfer" : "transfer " + std::to_string(nth);
        return trials.Judge(result, which + " delivers " +
                                        kDeliveries.at(static_cast<std::size_t>(delivery)) + " (" +
                                        fault.Where() + ")");
    };
    for (u64 kind = 1; kind < kDeliveries.size(); ++kind) {
        run.Case(kind, [&] { return disturb(0, static_cast<Delivery>(kind)); });
    }
    for (u64 number = 0; number < counted; ++number) {
        const auto kind = static_cast<Delivery>(Mix(run.Seed(), number) % kDeliveries.size());
        run.Case(kDeliveries.size() + number, [&] { return disturb(number + 1, kind); });
    }
}

const RegisteredFamily kShortTransfers({.name = "short-transfers",
                                        .title = "short transfers and interrupted calls",
                                        .cases = 1200,
                                        .runGroup = &RunShortTransfers});

// --- The full disk: its space runs out, and comes back after the first failure.

constexpr i64 kStep = 512;
constexpr i64 kStepsOfAGroup = 40;

class FullDisk final : public Fault {
  public:
    FullDisk(MemoryDisk& disk, i64 capacity, bool holesCount)
        : m_disk(disk), m_capacity(capacity), m_holesCount(holesCount) {}
    ~FullDisk() override { m_disk.SetCapacity(-1, false); }
    FullDisk(const FullDisk&) = delete;
    FullDisk& operator=(const FullDisk&) = delete;

    void Resume() override {
        if (!m_healed) {
            m_disk.SetCapacity(m_capacity, m_holesCount);
        }
    }
    void Suspend() override {
        m_struck = Struck();
        m_disk.SetCapacity(-1, false);
    }
    void Leave() override { m_most = std::max(m_most, m_disk.UsedBytes(m_holesCount)); }
    void Heal() override {
        Suspend();
        m_healed = true;
    }
    bool Struck() const override { return m_struck || m_disk.FullCount() > 0; }
    bool MayHurtWriter() const override { return Struck(); }
    bool Explains(Operation /*operation*/, u32 code) const override {
        return code == RC_SYSTEM_ERROR;
    }
    // The most that was in use between two calls.
    i64 Most() const { return m_most; }

  private:
    MemoryDisk& m_disk;
    const i64 m_capacity;
    const bool m_holesCount;
    bool m_healed = false;
    bool m_struck = false;
    i64 m_most = 0;
};

void RunFullDisk(GroupRun& run) {
    // File systems differ in whether a file that was only sized ahead has its space.
    const bool holesCount = run.Number() % 2 == 1;
    Trials trials(run, {.operations = 24,
                        .async = run.Number() % 4 == 2,
                        .forceFlush = run.Number() % 3 == 0,
                        .preallocates = run.Number() % 8 < 2,
                        .moreSettings = ""});
    FullDisk roomy(trials.Disk(), -1, holesCount);
    trials.Undisturbed(roomy);
    const i64 steps = roomy.Most() / kStep + 1;
    const i64 stride = (steps + kStepsOfAGroup - 1) / kStepsOfAGroup;
    for (i64 step = 0; step <= steps; step += stride) {
        run.Case(static_cast<u64>(step) + 1, [&] {
            FullDisk fault(trials.Disk(), step * kStep, holesCount);
            const TrialResult result = trials.Run(fault);
            run.Count("found the disk full", fault.Struck() ? 1 : 0);
            return trials.Judge(result, std::to_string(step * kStep) + " bytes of disk");
        });
    }
}

const RegisteredFamily kFullDisk(
    {.name = "disk-full",
     .title = "the disk is full at every 512 bytes, then space returns",
     .cases = 300,
     .runGroup = &RunFullDisk});

// --- Exhausted memory: each allocation of a run fails, of objects and of blocks and buffers, in
// whatever thread, once or from then on until an operation has answered.

// What the gate of the allocations looks at: they may come from any thread.
std::atomic<bool> g_acts{false};
std::atomic<bool> g_sticky{false};
std::atomic<u64> g_nth{0};  // 0: none fails
std::atomic<u64> g_count{0};
std::atomic<bool> g_struck{false};
// The tests' own allocations count for nothing; threads of the library have none.
thread_local u32 t_exempt = 0;

bool FailsNow() {
    if (!g_acts || t_exempt > 0) {
        return false;
    }
    const u64 number = ++g_count;
    const bool fails = g_nth > 0 && (number == g_nth || (g_sticky && number > g_nth));
    g_struck = g_struck || fails;
    return fails;
}

struct Exempt {
    Exempt() { ++t_exempt; }
    ~Exempt() { --t_exempt; }
    Exempt(const Exempt&) = delete;
    Exempt& operator=(const Exempt&) = delete;
};

// While it lives, allocations are counted and those of the table's entries for files are not.
class CountedMemory : test::CallLayer<CountedMemory> {
  public:
    CountedMemory() {
        Wrap(test::FileEntries());
        Wrap(test::CallEntries<&test::CallTable::createThread>());
        Take<&test::CallTable::allocMemory, &CountedMemory::Alloc>();
        test::SetNewGate(&FailsNow);
    }
    ~CountedMemory() { test::SetNewGate(nullptr); }
    CountedMemory(const CountedMemory&) = delete;
    CountedMemory& operator=(const CountedMemory&) = delete;

  private:
    friend test::CallLayer<CountedMemory>;
    // The memory of these calls is the test's.
    template <typename Call>
    static auto Around(Call call) {
        const Exempt exempt;
        return call();
    }
    void* Alloc(std::size_t size) { return FailsNow() ? nullptr : Below().allocMemory(size); }
};

class NoMemory final : public Fault {
  public:
    NoMemory(u64 nth, bool sticky) {
        g_nth = nth;
        g_sticky = sticky;
        g_count = 0;
        g_struck = false;
        g_acts = false;
    }
    ~NoMemory() override { g_acts = false; }
    NoMemory(const NoMemory&) = delete;
    NoMemory& operator=(const NoMemory&) = delete;

    void Resume() override { g_acts = true; }
    void Suspend() override { g_acts = false; }
    void Enter() override { --t_exempt; }
    void Leave() override { ++t_exempt; }
    void Heal() override { g_nth = 0; }
    bool Struck() const override { return g_struck; }
    bool MayHurtWriter() const override { return g_struck; }
    bool Explains(Operation operation, u32 code) const override {
        // Events and threads that find no memory are the system's failure.
        const bool startsThreads = operation == Operation::kOpen || operation == Operation::kLoad ||
                                   operation == Operation::kClear ||
                                   operation == Operation::kStartOver;
        return code == RC_NO_MEMORY || (startsThreads && code == RC_SYSTEM_ERROR);
    }
};

void RunNoMemory(GroupRun& run) {
    Trials trials(
        run,
        {.async = run.Number() % 2 == 1, .forceFlush = run.Number() % 4 == 0, .moreSettings = ""});
    const CountedMemory counted;
    const Exempt test;
    {
        NoMemory none(0, false);
        trials.Undisturbed(none);
    }
    const u64 allocations = g_count;
    for (u64 number = 1; number <= allocations; ++number) {
        run.Case(number, [&] {
            const bool sticky = Mix(run.Seed(), number) % 3 == 0;
            NoMemory fault(number, sticky);
            return trials.Judge(trials.Run(fault), "no memory at allocation " +
                                                       std::to_string(number) +
                                                       (sticky ? " and from then on" : ""));
        });
    }
}

const RegisteredFamily kNoMemory({.name = "alloc-failures",
                                  .title = "allocation failure at every n",
                                  .cases = 3000,
                                  .runGroup = &RunNoMemory});

}  // namespace

}  // namespace k9erepl::reliability
