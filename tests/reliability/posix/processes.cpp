// The families of processes that run a script on real files. One kills them before, inside and
// after calls, and at random moments. The other holds failing calls of a process against failing
// calls of the disk in memory: the same script meets an error at the same call, and must answer the
// same. What a process left is judged in both: what was acknowledged is there, and it goes on.
#include <k9erepl/storage.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>

#include "reliability/family.h"
#include "reliability/oracle.h"
#include "reliability/posix/script_process.h"
#include "reliability/steady_calls.h"

namespace k9erepl::reliability {

namespace {

using test::SystemCall;
using test::SystemErrorKind;

constexpr u64 kKillsOfAGroup = 9;
constexpr u64 kErrorsOfAGroup = 24;
constexpr const char* kIndex = "-idx";  // its calls come from another thread, in any order

// `lowest`: the first operation whose state may be in the file.
Problem Judge(MemoryDisk& disk, const History& history, const ProcessEnd& end, std::size_t lowest,
              u64 seed) {
    if (end.begun == 0) {
        return "";  // a creation that did not end is made again
    }
    return Examine(disk, end.left, history, seed, ByStates(history, {lowest, end.begun}));
}

// --- Killed processes

[[noreturn]] void Die() {
    kill(getpid(), SIGKILL);
    for (;;) {
        pause();
    }
}

// Before the call, or when half of it is done, if it is a write: the next call comes too late.
Strike KillAt(u64 at, bool inside) {
    return [=](u64 number, const Attempt& attempt) -> std::optional<Permit> {
        if (number > at || (number == at && !(inside && attempt.call == SystemCall::kWrite))) {
            Die();
        }
        return number == at ? std::optional(Permit{{}, attempt.size / 2}) : std::nullopt;
    };
}

void RunKills(GroupRun& run) {
    const SteadyCalls steady;
    MemoryDisk disk;
    const ScriptPlan plan{.async = run.Number() % 2 == 1, .forceFlush = run.Number() % 8 == 2};
    disk.Mount({});
    const History history = RunScript(StoragePath(), plan, run.Seed(), {}).history;
    run.Case(0, [&] { return history.problem; });
    const u64 calls = RunProcess(plan, run.Seed(), nullptr).calls;
    for (u64 number = 1; number <= kKillsOfAGroup; ++number) {
        run.Case(number, [&]() -> Problem {
            model::Random random(Mix(run.Seed(), number));
            const u64 at = 1 + random.Next() % calls;
            const bool fromOutside = random.OneIn(4);
            const Strike strike = fromOutside ? nullptr : KillAt(at, random.OneIn(2));
            const ProcessEnd end = RunProcess(plan, run.Seed(), strike, fromOutside ? at : 0);
            run.Keep(end.left, {}, 0);
            run.Count(end.answer == -SIGKILL ? "killed" : "came to their end");
            if (end.answer != -SIGKILL && (end.answer != 0 || end.code != 0)) {
                return "the process ended with " + std::to_string(end.answer) + ", answer " +
                       std::to_string(end.code);
            }
            const Problem problem = Judge(disk, history, end, end.acknowledged, number);
            return problem.empty() ? "" : "killed at call " + std::to_string(at) + ": " + problem;
        });
    }
}

const RegisteredFamily kKills({.name = "sigkill",
                               .title = "SIGKILL at calls and at random moments",
                               .cases = 200,
                               .runGroup = &RunKills});

// --- Failing calls

// Counts calls of one kind, and ends one of them otherwise.
struct Counter {
    SystemCall call;
    u64 at = 0;  // 0: none
    std::optional<SystemErrorKind> error;
    u64 calls = 0;

    // `error` empty: half of the transfer is made.
    std::optional<Permit> Pass(const Attempt& attempt) {
        if (attempt.call != call || attempt.name.find(kIndex) != std::string::npos ||
            ++calls != at) {
            return std::nullopt;
        }
        return error ? Permit{*error} : Permit{{}, attempt.size / 2};
    }
};

class Comparison {
  public:
    Comparison(GroupRun& run, MemoryDisk& disk, const ScriptPlan& plan, u64 seed)
        : m_run(run), m_disk(disk), m_plan(plan), m_random(seed) {}

    Problem Run() {
        const auto call =
            m_random.OneOf({SystemCall::kRead, SystemCall::kWrite, SystemCall::kWrite,
                            SystemCall::kSetEnd, SystemCall::kFlush, SystemCall::kRename,
                            SystemCall::kLink, SystemCall::kFlushDirectory});
        Counter counter{call, 0, {}};
        const ScriptResult undisturbed = InMemory(counter);
        if (!undisturbed.history.problem.empty() || counter.calls == 0) {
            m_run.Count("without such a call");
            return undisturbed.history.problem;
        }
        const bool transfers = call == SystemCall::kRead || call == SystemCall::kWrite;
        counter.at = 1 + m_random.Next() % counter.calls;
        if (!transfers || !m_random.OneIn(3)) {
            counter.error =
                m_random.OneOf({SystemErrorKind::kInputOutput, SystemErrorKind::kNoSpace,
                                SystemErrorKind::kFileTooBig});
        }
        const ScriptResult inMemory = InMemory(counter);
        counter.calls = 0;
        const ProcessEnd inProcess = RunProcess(
            m_plan, m_run.Seed(),
            [counter](u64, const Attempt& attempt) mutable { return counter.Pass(attempt); });
        m_run.Keep(inProcess.left, {}, 0);
        Problem problem = Compare(inMemory, inProcess, call == SystemCall::kRead);
        if (problem.empty()) {
            // The operation that failed, and the closing behind it, may have left the next state,
            // or none of it: OnWriteToFile tells of a commit whose flush to the disk then fails.
            const std::size_t lowest =
                inProcess.code == RC_OK
                    ? inProcess.acknowledged
                    : std::min<std::size_t>(inProcess.acknowledged, inProcess.failed - 1);
            problem = Judge(m_disk, undisturbed.history, inProcess, lowest, m_random.Next());
        }
        return problem.empty() ? ""
                               : (counter.error ? "error at call " : "half of call ") +
                                     std::to_string(counter.at) + " of kind " +
                                     std::to_string(static_cast<u32>(call)) + ": " + problem;
    }

  private:
    ScriptResult InMemory(Counter& counter) {
        counter.calls = 0;
        m_disk.Mount({});
        m_disk.SetGate(
            [&](const Attempt& attempt) { return counter.Pass(attempt).value_or(Permit{}); });
        ScriptResult result = RunScript(StoragePath(), m_plan, m_run.Seed(), {});
        m_disk.SetGate(nullptr);
        return result;
    }

    Problem Compare(const ScriptResult& inMemory, const ProcessEnd& inProcess, bool reads) {
        const u32 code = inProcess.code;
        if (inProcess.answer != 0) {
            return "the process ended with " + std::to_string(inProcess.answer);
        }
        m_run.Count(inProcess.struck == 0 ? "without such a call"
                    : code == RC_OK       ? "made up for"
                                          : "answered");
        // How much a load reads depends on how far the index thread had come.
        if (reads) {
            return code == RC_OK || code == RC_SYSTEM_ERROR || code == RC_FILE_CORRUPT
                       ? ""
                       : "answers " + std::to_string(code);
        }
        if (inProcess.struck != 1) {
            return "there was no such call";
        }
        if (inProcess.failed == inMemory.failed && code == inMemory.code) {
            return "";
        }
        return "operation " + std::to_string(inProcess.failed) + " answers " +
               std::to_string(code) + "; on the disk in memory " + std::to_string(inMemory.failed) +
               " answers " + std::to_string(inMemory.code);
    }

    GroupRun& m_run;
    MemoryDisk& m_disk;
    const ScriptPlan m_plan;
    model::Random m_random;
};

void RunErrors(GroupRun& run) {
    const SteadyCalls steady;
    MemoryDisk disk;
    const ScriptPlan plan{.forceFlush = run.Number() % 2 == 0, .startsOver = false};
    for (u64 number = 0; number < kErrorsOfAGroup; ++number) {
        run.Case(number,
                 [&] { return Comparison(run, disk, plan, Mix(run.Seed(), number)).Run(); });
    }
}

const RegisteredFamily kErrors(
    {.name = "process-errors",
     .title = "failing calls of a process, as those of the disk in memory",
     .cases = 200,
     .runGroup = &RunErrors});

}  // namespace

}  // namespace k9erepl::reliability
