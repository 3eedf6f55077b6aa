// The family of killed processes: SIGKILL before, inside and after calls of a process that appends,
// clears, squeezes, saves its index and opens again, and at random moments; on real files, through
// the shared library.
#include "reliability/family.h"
#include "reliability/history.h"
#include "reliability/memory_disk.h"
#include "reliability/oracle.h"
#include "reliability/posix/script_process.h"
#include "reliability/steady_calls.h"

namespace k9erepl::reliability {

namespace {

constexpr u64 kKillsOfAGroup = 9;

ProcessFault FaultOf(model::Random& random, u64 calls) {
    const u64 at = 1 + random.Next() % calls;
    ProcessFault fault;
    const auto* const action =
        random.OneOf<const char*>({"kill-before", "kill-inside", "kill-after", ""});
    fault.action = action;
    (fault.action.empty() ? fault.killAfter : fault.at) = at;
    return fault;
}

Problem Judge(MemoryDisk& disk, const History& history, const ProcessEnd& end, u64 seed) {
    if (end.left.Find(StoragePath()) == nullptr && end.acknowledged == 0) {
        return "";  // killed before it was created
    }
    if (end.begun == 0) {
        return "";  // a creation that did not end is made again
    }
    const StateRange range{end.acknowledged, end.begun};
    return Examine(disk, end.left, history, seed,
                   [&](const Seen& seen) { return JudgeByStates(history, range, seen); });
}

void RunGroup(GroupRun& run) {
    const SteadyCalls steady;
    MemoryDisk disk;
    const ScriptPlan plan{.async = run.Number() % 2 == 1, .forceFlush = run.Number() % 8 == 2};
    disk.Mount({});
    const ScriptResult script = RunScript(StoragePath(), plan, run.Seed(), {});
    History history;
    history.settings = script.settings;
    history.states = script.states;
    run.Case(0, [&] { return script.problem; });
    const u64 calls = RunProcess(plan, run.Seed(), {}).calls;
    for (u64 number = 1; number <= kKillsOfAGroup; ++number) {
        run.Case(number, [&]() -> Problem {
            model::Random random(Mix(run.Seed(), number));
            const ProcessFault fault = FaultOf(random, calls);
            const ProcessEnd end = RunProcess(plan, run.Seed(), fault);
            run.Keep(end.left, {}, 0);
            run.Count(end.killed ? "killed" : "came to their end");
            if (!end.killed && (end.exitStatus != 0 || end.code != 0)) {
                return "the process ended with " + std::to_string(end.exitStatus) + ", answer " +
                       std::to_string(end.code);
            }
            Problem problem = Judge(disk, history, end, number);
            return problem.empty()
                       ? ""
                       : fault.action + " of call " + std::to_string(fault.at + fault.killAfter) +
                             ": " + problem;
        });
    }
}

const RegisteredFamily kFamily({.name = "sigkill",
                                .title = "SIGKILL at calls and at random moments",
                                .cases = 200,
                                .runGroup = &RunGroup});

}  // namespace

}  // namespace k9erepl::reliability
