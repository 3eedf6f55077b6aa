// The family that holds failing calls of the system against failing calls of the disk in memory:
// the same script, through the shared library on real files and in this process on the disk in
// memory, meets the same error at the same call, and must answer the same. What the process left is
// judged, too: what was acknowledged is there, and it goes on.
#include <k9erepl/storage.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "reliability/family.h"
#include "reliability/gate_fault.h"
#include "reliability/history.h"
#include "reliability/oracle.h"
#include "reliability/posix/script_process.h"
#include "reliability/steady_calls.h"

namespace k9erepl::reliability {

namespace {

using test::SystemCall;

constexpr u64 kCasesOfAGroup = 24;
constexpr const char* kIndex = "-idx";  // its calls come from another thread, in any order

// Calls of the table that are one call of the system's, with its name.
struct Pair {
    const char* name;
    SystemCall call;
};
constexpr std::array<Pair, 8> kPairs{{{"read", SystemCall::kRead},
                                      {"write", SystemCall::kWrite},
                                      {"write", SystemCall::kWrite},
                                      {"ftruncate", SystemCall::kSetEnd},
                                      {"fdatasync", SystemCall::kFlush},
                                      {"rename", SystemCall::kRename},
                                      {"link", SystemCall::kLink},
                                      {"fsync", SystemCall::kFlushDirectory}}};
constexpr std::array<int, 4> kErrors{EIO, ENOSPC, EFBIG, EDQUOT};

// Counts calls of one kind, and ends one of them otherwise.
struct Counter {
    SystemCall call;
    u64 at = 0;  // 0: none
    bool isShort = false;
    u64 calls = 0;

    Permit Pass(const Attempt& attempt) {
        if (attempt.call != call || attempt.name.find(kIndex) != std::string::npos ||
            ++calls != at) {
            return {};
        }
        return isShort ? Permit{.error = {}, .sizeMax = attempt.size / 2}
                       : Permit{.error = platform::SystemErrorKind::kNoSpace};
    }
};

class Comparison {
  public:
    Comparison(GroupRun& run, MemoryDisk& disk, u64 seed)
        : m_run(run), m_disk(disk), m_random(seed) {}

    Problem Run(const ScriptPlan& plan) {
        const auto& pair = kPairs.at(m_random.Below(static_cast<u32>(kPairs.size())));
        Counter counter{pair.call};
        const ScriptResult undisturbed = InMemory(plan, counter);
        if (!undisturbed.problem.empty() || counter.calls == 0) {
            m_run.Count("without such a call");
            return undisturbed.problem;
        }
        const bool transfers = pair.call == SystemCall::kRead || pair.call == SystemCall::kWrite;
        counter = {pair.call, 1 + m_random.Next() % counter.calls, transfers && m_random.OneIn(3)};
        const ProcessFault fault{
            .at = counter.at,
            .action = counter.isShort ? "short" : std::to_string(kErrors.at(m_random.Below(4))),
            .call = pair.name,
            .skip = kIndex};
        const ScriptResult inMemory = InMemory(plan, counter);
        const ProcessEnd inProcess = RunProcess(plan, m_run.Seed(), fault);
        m_run.Keep(inProcess.left, {}, 0);
        Problem problem = Compare(inMemory, inProcess, pair.call == SystemCall::kRead);
        if (problem.empty()) {
            problem = Judge(undisturbed, inProcess);
        }
        return problem.empty() ? ""
                               : fault.action + " of " + fault.call + " " +
                                     std::to_string(fault.at) + ": " + problem;
    }

  private:
    ScriptResult InMemory(const ScriptPlan& plan, Counter& counter) {
        counter.calls = 0;
        m_disk.Mount({});
        m_disk.SetGate([&](const Attempt& attempt) { return counter.Pass(attempt); });
        ScriptResult result = RunScript(StoragePath(), plan, m_run.Seed(), {});
        m_disk.SetGate(nullptr);
        return result;
    }

    Problem Compare(const ScriptResult& inMemory, const ProcessEnd& inProcess, bool reads) {
        if (inProcess.killed || inProcess.exitStatus != 0) {
            return "the process ended with " + std::to_string(inProcess.exitStatus);
        }
        m_run.Count(inProcess.struck == 0 ? "without such a call"
                    : inProcess.code == 0 ? "made up for"
                                          : "answered");
        // How much a load reads depends on how far the index thread had come.
        if (reads) {
            const u32 code = inProcess.code;
            return code == RC_OK || code == RC_SYSTEM_ERROR || code == RC_FILE_CORRUPT
                       ? ""
                       : "answers " + std::to_string(code);
        }
        if (inProcess.struck != 1) {
            return "there was no such call";
        }
        if (inProcess.failed == inMemory.failed && inProcess.code == inMemory.code) {
            return "";
        }
        return "operation " + std::to_string(inProcess.failed) + " answers " +
               std::to_string(inProcess.code) + "; on the disk in memory " +
               std::to_string(inMemory.failed) + " answers " + std::to_string(inMemory.code);
    }

    // The operation that failed, and the closing behind it, may have left the next state, or none
    // of it: OnWriteToFile tells of a commit whose flush to the disk then fails.
    Problem Judge(const ScriptResult& undisturbed, const ProcessEnd& end) {
        if (end.begun == 0) {
            return "";  // a creation that failed is made again
        }
        History history;
        history.settings = undisturbed.settings;
        history.states = undisturbed.states;
        const std::size_t lowest = end.code == RC_OK
                                       ? end.acknowledged
                                       : std::min<std::size_t>(end.acknowledged, end.failed - 1);
        const StateRange range{lowest, end.begun};
        return Examine(m_disk, end.left, history, m_random.Next(),
                       [&](const Seen& seen) { return JudgeByStates(history, range, seen); });
    }

    GroupRun& m_run;
    MemoryDisk& m_disk;
    model::Random m_random;
};

void RunGroup(GroupRun& run) {
    const SteadyCalls steady;
    MemoryDisk disk;
    const ScriptPlan plan{.forceFlush = run.Number() % 2 == 0, .startsOver = false};
    for (u64 number = 0; number < kCasesOfAGroup; ++number) {
        run.Case(number, [&] { return Comparison(run, disk, Mix(run.Seed(), number)).Run(plan); });
    }
}

const RegisteredFamily kFamily(
    {.name = "preload-errors",
     .title = "failing calls of the system, as those of the disk in memory",
     .cases = 200,
     .runGroup = &RunGroup});

}  // namespace

}  // namespace k9erepl::reliability
