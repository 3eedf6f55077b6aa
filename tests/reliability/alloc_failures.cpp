// The family of exhausted memory: each allocation of a run fails, of objects and of blocks and
// buffers, in whatever thread, once or from then on until an operation has answered.
#include <k9erepl/storage.h>

#include <atomic>

#include "reliability/family.h"
#include "reliability/fault_trial.h"
#include "reliability/steady_calls.h"
#include "support/call_layer.h"
#include "support/new_fault.h"

namespace k9erepl::reliability {

namespace {

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

class Exempt {
  public:
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

std::string Describe(u64 nth, bool sticky) {
    return "no memory at allocation " + std::to_string(nth) +
           (sticky ? " and from then on: " : ": ");
}

void RunGroup(GroupRun& run) {
    const SteadyCalls steady;
    MemoryDisk disk;
    const CountedMemory counted;
    const Exempt test;
    const TrialPlan plan{
        .async = run.Number() % 2 == 1, .forceFlush = run.Number() % 4 == 0, .moreSettings = ""};
    TrialResult undisturbed;
    {
        NoMemory none(0, false);
        undisturbed = RunTrial(disk, plan, none, run.Seed());
    }
    const u64 allocations = g_count;
    run.Case(0, [&] { return undisturbed.problem; });
    for (u64 number = 1; number <= allocations; ++number) {
        run.Case(number, [&] {
            const bool sticky = Mix(run.Seed(), number) % 3 == 0;
            NoMemory fault(number, sticky);
            const TrialResult result = RunTrial(disk, plan, fault, run.Seed());
            run.Count("answered a failure", result.failures > 0 ? 1 : 0);
            run.Count("went on without reopening", result.wentOn ? 1 : 0);
            run.Count("went on reopened", result.reopened ? 1 : 0);
            return result.problem.empty() ? "" : Describe(number, sticky) + result.problem;
        });
    }
}

const RegisteredFamily kFamily({.name = "alloc-failures",
                                .title = "allocation failure at every n",
                                .cases = 3000,
                                .runGroup = &RunGroup});

}  // namespace

}  // namespace k9erepl::reliability
