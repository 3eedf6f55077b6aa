// The family of failing calls: each call of a run fails, once or from then on, with each of the
// errors that disks and systems give. An interrupted call and a short transfer must not be noticed.
#include <array>

#include "reliability/family.h"
#include "reliability/gate_fault.h"
#include "reliability/steady_calls.h"

namespace k9erepl::reliability {

namespace {

using test::SystemErrorKind;

constexpr std::array<SystemErrorKind, 6> kErrors = {
    SystemErrorKind::kNoSpace,    SystemErrorKind::kInputOutput,  SystemErrorKind::kInterrupted,
    SystemErrorKind::kFileTooBig, SystemErrorKind::kAccessDenied, SystemErrorKind::kOutOfMemory};
constexpr std::size_t kShort = kErrors.size();
constexpr u32 kTroubles = kErrors.size() + 1;

struct Trouble {
    u64 nth = 0;
    std::size_t kind = 0;
    bool sticky = false;

    bool Invisible() const {
        return kind == kShort || kErrors.at(kind) == SystemErrorKind::kInterrupted;
    }
    // A disk that gets full and a file that gets too big take a part of the write first.
    bool IsTorn() const {
        return kind != kShort && (kErrors.at(kind) == SystemErrorKind::kNoSpace ||
                                  kErrors.at(kind) == SystemErrorKind::kFileTooBig);
    }
    // How the call ends, if in another way than it should. An interrupted call is not interrupted
    // again at once.
    std::optional<Permit> Outcome(u64 number, const Attempt& attempt) const {
        const bool alternates = Invisible();
        const bool later = sticky && number > nth && (!alternates || number % 2 == nth % 2);
        if (IsTorn() && attempt.call == test::SystemCall::kWrite && number == nth) {
            return Permit{{}, attempt.size / 2};
        }
        if (number != nth && !later && !(IsTorn() && number == nth + 1)) {
            return std::nullopt;
        }
        return kind == kShort ? Permit{{}, (attempt.size + 1) / 2} : Permit{kErrors.at(kind)};
    }
};

std::string Describe(const Trouble& trouble, const std::string& where) {
    static constexpr std::array<const char*, kTroubles> kNames = {
        "no space", "I/O error", "interruption", "too big", "no access", "no memory", "short"};
    return std::string(kNames.at(trouble.kind)) + " at call " + std::to_string(trouble.nth) + " (" +
           where + ")" + (trouble.sticky ? " and from then on: " : ": ");
}

void CountResult(GroupRun& run, const TrialResult& result) {
    run.Count("answered a failure", result.failures > 0 ? 1 : 0);
    run.Count("went on without reopening", result.wentOn ? 1 : 0);
    run.Count("went on reopened", result.reopened ? 1 : 0);
    run.Count("damaged as documented", result.damaged ? 1 : 0);
}

void RunGroup(GroupRun& run) {
    const SteadyCalls steady;
    MemoryDisk disk;
    const TrialPlan plan{.async = run.Number() % 2 == 1,
                         .forceFlush = run.Number() % 3 != 0,
                         .commitBarrier = run.Number() % 3 == 2,
                         .moreSettings = ""};
    u64 calls = 0;
    run.Case(0, [&] {
        GateFault none(disk, nullptr);
        TrialResult result = RunTrial(disk, plan, none, run.Seed());
        calls = none.Calls();
        return result.problem;
    });
    if (calls == 0) {  // another case is wanted alone
        GateFault none(disk, nullptr);
        (void)RunTrial(disk, plan, none, run.Seed());
        calls = none.Calls();
    }
    for (u64 number = 1; number <= calls; ++number) {
        run.Case(number, [&] {
            const u64 choice = Mix(run.Seed(), number);
            const Trouble trouble{number, static_cast<std::size_t>(choice % kTroubles),
                                  choice / kTroubles % 2 == 1};
            GateFault fault(
                disk,
                [&](u64 call, const Attempt& attempt) { return trouble.Outcome(call, attempt); },
                trouble.Invisible());
            const TrialResult result = RunTrial(disk, plan, fault, run.Seed());
            CountResult(run, result);
            return result.problem.empty() ? "" : Describe(trouble, fault.Where()) + result.problem;
        });
    }
}

const RegisteredFamily kFamily({.name = "io-errors",
                                .title = "I/O error at every call, once and for ever",
                                .cases = 5000,
                                .runGroup = &RunGroup});

}  // namespace

}  // namespace k9erepl::reliability
