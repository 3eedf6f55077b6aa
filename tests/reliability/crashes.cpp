// The families of crashes in a recorded run: a killed process, a power cut, crashes one behind the
// other, and crashes after commits that were retried or rolled back.
#include <k9erepl/storage.h>

#include <algorithm>
#include <unordered_set>
#include <utility>

#include "format/storage_file_format.h"
#include "reliability/crash_images.h"
#include "reliability/family.h"
#include "reliability/fault_trial.h"
#include "reliability/steady_calls.h"
#include "reliability/workload.h"

namespace k9erepl::reliability {

namespace {

// Images are distinct in the whole family.
bool IsNew(std::unordered_set<u64>& seen, const DiskImage& image, StateRange range) {
    return seen.insert(Mix(image.Hash(), Mix(range.low, range.high))).second;
}

// --- Killed processes: every call before the moment done, every call behind it not, and a write
// between them perhaps done in part. Half of the groups have the asynchronous writer.

void RunPrefixes(GroupRun& run) {
    static std::unordered_set<u64> seen;
    const SteadyCalls steady;
    MemoryDisk disk;
    const History history = MakeHistory(disk, run);
    ImageMaker maker(history.base, history.changes);
    u64 number = 0;
    for (const CrashPoint& point : CrashPointsOf(history.changes, 1500, run.Seed())) {
        if (!run.Wants(++number)) {
            continue;
        }
        const StateRange range = history.AfterKill(point.changes, point.cut > 0);
        const DiskImage image = maker.At(point);
        if (!IsNew(seen, image, range)) {
            continue;
        }
        run.Keep(image, history.changes, point.changes);
        run.Case(number, [&] {
            return Examine(disk, image, history, run.Seed() + number, ByStates(history, range));
        });
    }
}

const RegisteredFamily kPrefixes({.name = "crash-prefixes",
                                  .title = "crash images: prefixes and cuts",
                                  .cases = 100000,
                                  .runGroup = &RunPrefixes});

// --- Power cuts: pages that were written and not flushed are lost one by one, or come out as they
// were a while before. What a forced flush acknowledged must be there; with the asynchronous
// writer, what OnWriteToFile told of a write that goes through, or else what was closed. What was
// in flight may look complete and not be, unless the commit barrier keeps its commit block back:
// such images are counted.

// Whether everything that was acknowledged is there as it was, or cleared by what was in flight:
// what is wrong belongs to a run that nobody was promised.
bool KeepsWhatWasAcknowledged(const History& history, StateRange range, const Seen& seen) {
    const auto isClearedSince = [&](i64 rev) {
        const auto first = history.states.begin() + static_cast<std::ptrdiff_t>(range.low);
        const auto end = history.states.begin() + static_cast<std::ptrdiff_t>(range.high) + 1;
        return std::any_of(
            first, end, [&](const model::Content& state) { return !state.records.contains(rev); });
    };
    const model::Records& acknowledged = history.states[range.low].records;
    return std::all_of(acknowledged.begin(), acknowledged.end(), [&](const auto& entry) {
        const auto found = seen.records.find(entry.first);
        return found == seen.records.end() ? isClearedSince(entry.first)
                                           : found->second == entry.second;
    });
}

// Half of the groups have the asynchronous writer, which forces when it ends or writes through.
WorkloadPlan PowerCutPlan(u64 group) {
    const bool async = group % 2 == 1;
    const u64 kind = group / 2;
    return {.operations = 40,
            .async = async,
            .forceFlush = !async || kind % 2 == 0,
            .commitBarrier = !async && kind % 2 == 1,
            .writeThrough = async && kind % 2 == 1,
            .flushEvery = kind % 4 < 2 ? 1U : 3U,
            .blockSize = 16384,  // runs of several pages
            .moreSettings = ""};
}

Problem JudgePowerCut(GroupRun& run, const WorkloadPlan& plan, const History& history,
                      StateRange range, const Seen& seen) {
    const Problem problem = JudgeByStates(history, range, seen);
    const std::string kind = plan.commitBarrier  ? "with a barrier"
                             : !plan.async       ? "without a barrier"
                             : plan.writeThrough ? "asynchronous, written through"
                                                 : "asynchronous";
    run.Count(kind);
    if (!problem.empty() && !plan.commitBarrier && KeepsWhatWasAcknowledged(history, range, seen)) {
        run.Count("undetectable " + kind);
        return "";
    }
    return problem;
}

void RunPages(GroupRun& run) {
    static std::unordered_set<u64> seen;
    const SteadyCalls steady;
    MemoryDisk disk;
    const WorkloadPlan plan = PowerCutPlan(run.Number());
    const History history = MakeHistory(disk, plan, run.Seed());
    run.Case(0, [&] { return history.problem; });
    PowerCut cut(history.base);
    for (u64 number = 1; number <= (history.changes.size() + 1) * kPageFates; ++number) {
        const auto done = static_cast<std::size_t>((number - 1) / kPageFates);
        const u64 fate = (number - 1) % kPageFates;
        if (fate == 0 && done > 0) {
            cut.Do(history.changes[done - 1]);
        }
        if (!run.Wants(number)) {
            continue;
        }
        const StateRange range = history.AfterPowerCut(done);
        model::Random random(run.Seed() + number);
        const DiskImage image = cut.Leave(static_cast<PageFate>(fate), random);
        if (!IsNew(seen, image, range)) {
            continue;
        }
        run.Keep(image, history.changes, done);
        run.Case(number, [&] {
            return Examine(disk, image, history, number, [&](const Seen& content) {
                return JudgePowerCut(run, plan, history, range, content);
            });
        });
    }
}

const RegisteredFamily kPages({.name = "crash-pages",
                               .title = "crash images: pages dropped or reordered",
                               .cases = 20000,
                               .runGroup = &RunPages});

// --- Repeated crashes: a process that is killed in the middle of a run, the next one in the middle
// of its opening or of what it appends first, and the one after that again.

constexpr u32 kNextStamp = 0x10000000;  // and its multiples, for the sessions behind a run

void RunRepeated(GroupRun& run) {
    const SteadyCalls steady;
    MemoryDisk disk;
    const History history = MakeHistory(disk, run);
    const std::vector<CrashPoint> points = CrashPointsOf(history.changes, 2000, run.Seed());
    for (u64 number = 1; number <= 100; ++number) {
        run.Case(number, [&] {
            model::Random random(Mix(run.Seed(), number));
            const CrashPoint point = random.AnyOf(points);
            DiskImage image = ImageMaker(history.base, history.changes).At(point);
            Judge judge = ByStates(history, history.AfterKill(point.changes, point.cut > 0));
            for (u32 level = 1; level <= 2; ++level) {
                const Problem problem =
                    CrashAgain(disk, history, level * kNextStamp, 0, random, &image, &judge);
                if (!problem.empty()) {
                    return "recovery " + std::to_string(level) + ": " + problem;
                }
            }
            return Examine(disk, image, history, random.Next(), judge);
        });
    }
}

const RegisteredFamily kRepeated({.name = "crash-in-recovery",
                                  .title = "crash inside recovery, twice nested",
                                  .cases = 5000,
                                  .runGroup = &RunRepeated});

// --- Ghost commits: flushes to the disk and writes fail now and then, clients commit again or roll
// back and go on, and a crash comes at any moment of that: the process is killed or, where the
// commit barrier keeps the ghosts out of that, too, the power goes. Records have one size, so that
// an abandoned commit block stands exactly where the next one would be looked for.

constexpr u32 kSmallRecord = 24;
// One of these has pages of its own, without a field that a load looks at.
constexpr u32 kLargeRecord = 9000;
constexpr u32 kLargeBlock = 16384;
constexpr u32 kQuietCalls = 2;  // of the library: a second attempt goes through

// Flushes and writes of the storage file fail at random.
class FailingFlushes final : public Fault {
  public:
    FailingFlushes(MemoryDisk& disk, u64 seed) : m_disk(disk), m_random(seed) {
        m_disk.SetGate([this](const Attempt& attempt) { return Decide(attempt); });
    }
    ~FailingFlushes() override { m_disk.SetGate(nullptr); }
    FailingFlushes(const FailingFlushes&) = delete;
    FailingFlushes& operator=(const FailingFlushes&) = delete;

    void Resume() override { m_acts = true; }
    void Suspend() override { m_acts = false; }
    void Enter() override { m_quiet -= m_quiet > 0 ? 1 : 0; }
    void Heal() override { m_quiet = kQuietCalls; }
    bool Struck() const override { return m_failed > 0; }
    bool MayHurtWriter() const override { return false; }
    bool Explains(Operation /*operation*/, u32 code) const override {
        return code == RC_SYSTEM_ERROR;
    }
    u32 Failed() const { return m_failed; }

  private:
    Permit Decide(const Attempt& attempt) {
        if (std::exchange(m_tears, false)) {
            return Permit{test::SystemErrorKind::kInputOutput};
        }
        const bool flushes = attempt.call == test::SystemCall::kFlush;
        const bool writes = attempt.call == test::SystemCall::kWrite;
        if (!m_acts || m_quiet > 0 || attempt.name != StoragePath() || (!flushes && !writes) ||
            !m_random.OneIn(flushes ? 3 : 8)) {
            return {};
        }
        ++m_failed;
        // A write may have got somewhere, even to its last byte, which is a zero already. A number
        // in the header that was refused may stand there, and is none of the ghosts.
        m_tears = writes && attempt.at >= kFirstItemOffset && m_random.OneIn(2);
        return m_tears                       ? Permit{{}, attempt.size - 1}
               : writes && m_random.OneIn(2) ? Permit{{}, 0}
                                             : Permit{test::SystemErrorKind::kInputOutput};
    }

    MemoryDisk& m_disk;
    model::Random m_random;
    bool m_acts = false;
    u32 m_quiet = kQuietCalls;
    u32 m_failed = 0;
    bool m_tears = false;  // the next call is the rest of a write
};

// The power goes once the file is there.
Problem CutPowerBehindGhosts(MemoryDisk& disk, const History& history, model::Random& random) {
    const std::size_t created = history.marks.at(1).changes;
    const std::size_t made =
        created + random.Below(static_cast<u32>(history.changes.size() - created + 1));
    const StateRange range = history.AfterPowerCut(made);
    PowerCut cut(history.base);
    for (std::size_t done = 0; done < made; ++done) {
        cut.Do(history.changes[done]);
    }
    const DiskImage image = cut.Leave(static_cast<PageFate>(random.Below(kPageFates)), random);
    return Examine(disk, image, history, random.Next(), [&](Seen seen) {
        // The numbers in the header are not forced to the disk.
        seen.lifenum = history.states[range.high].lifenum;
        seen.mark = history.states[range.high].mark;
        return JudgeByStates(history, range, seen);
    });
}

// A crash in the run and, half of the time, one in what was appended first after it.
Problem KillBehindGhosts(MemoryDisk& disk, const History& history, const CrashPoint& point,
                         model::Random& random) {
    DiskImage image = ImageMaker(history.base, history.changes).At(point);
    Judge judge = ByStates(history, history.AfterKill(point.changes, point.cut > 0));
    const Problem problem =
        random.OneIn(2) ? "" : CrashAgain(disk, history, kNextStamp, 1, random, &image, &judge);
    return problem.empty() ? Examine(disk, image, history, random.Next(), judge) : problem;
}

void RunGhosts(GroupRun& run) {
    const SteadyCalls steady;
    MemoryDisk disk;
    const bool large = run.Number() % 2 == 0;
    const TrialPlan plan{.operations = 40,
                         .forceFlush = true,
                         .commitBarrier = run.Number() % 3 == 0,
                         .removes = false,
                         .blockSize = large ? kLargeBlock : 0,
                         .recordSize = large ? kLargeRecord : kSmallRecord,
                         .moreSettings = ""};
    TrialResult result;
    {
        FailingFlushes fault(disk, ~run.Seed());
        result = RunTrial(disk, plan, fault, run.Seed());
        run.Count("failed writes and flushes", fault.Failed());
    }
    run.Case(0, [&] { return result.problem; });
    const History& history = result.history;
    std::vector<CrashPoint> points = CrashPointsOf(history.changes, 1000, run.Seed());
    std::erase_if(points, [created = history.marks.at(1).changes](const CrashPoint& point) {
        return point.changes < created;
    });
    model::Random ofGroup(run.Seed());
    for (u64 number = 1; number <= 40; ++number) {
        const CrashPoint point = ofGroup.AnyOf(points);
        run.Case(number, [&] {
            model::Random random(Mix(run.Seed(), number));
            return plan.commitBarrier && number % 2 == 0
                       ? CutPowerBehindGhosts(disk, history, random)
                       : KillBehindGhosts(disk, history, point, random);
        });
    }
}

const RegisteredFamily kGhosts({.name = "ghost-commits",
                                .title = "ghost commits, and commits retried after a failed flush",
                                .cases = 800,
                                .runGroup = &RunGhosts});

}  // namespace

}  // namespace k9erepl::reliability
