// The family of ghost commits: flushes to the disk and writes fail now and then, clients commit
// again or roll back and go on, and a crash comes at any moment of that: the process is killed or,
// where the commit barrier keeps the ghosts out of that, too, the power goes. Records have one
// size, so that an abandoned commit block stands exactly where the next one would be looked for.
#include <k9erepl/storage.h>

#include <utility>

#include "format/storage_file_format.h"
#include "reliability/crash_points.h"
#include "reliability/family.h"
#include "reliability/fault_trial.h"
#include "reliability/power_cut.h"
#include "reliability/steady_calls.h"

namespace k9erepl::reliability {

namespace {

constexpr u64 kCasesOfAGroup = 40;
constexpr std::size_t kPoints = 1000;
constexpr u32 kSmallRecord = 24;
// One of these has pages of its own, without a field that a load looks at.
constexpr u32 kLargeRecord = 9000;
constexpr u32 kLargeBlock = 16384;
constexpr u32 kQuietCalls = 2;  // of the library: a second attempt goes through
constexpr u32 kSecondStamp = 0x10000000;

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

// A crash in the run, and one in what was appended first after it.
class GhostHunt {
  public:
    GhostHunt(MemoryDisk& disk, const History& history, u64 seed)
        : m_disk(disk), m_history(history), m_random(seed) {}

    Problem RunPowerCut() {
        const std::size_t created = m_history.marks.at(1).changes;
        const std::size_t made =
            created + m_random.Below(static_cast<u32>(m_history.changes.size() - created + 1));
        const StateRange range = m_history.AfterPowerCut(made);
        PowerCut cut(m_history.base);
        for (std::size_t done = 0; done < made; ++done) {
            cut.Do(m_history.changes[done]);
        }
        const DiskImage image =
            cut.Leave(static_cast<PageFate>(m_random.Below(kPageFates)), m_random);
        return Examine(m_disk, image, m_history, m_random.Next(), [&](Seen seen) {
            // The numbers in the header are not forced to the disk.
            seen.lifenum = m_history.states[range.high].lifenum;
            seen.mark = m_history.states[range.high].mark;
            return JudgeByStates(m_history, range, seen);
        });
    }

    Problem Run(const CrashPoint& point) {
        const StateRange range = m_history.AfterKill(point.changes, point.cut > 0);
        const DiskImage image = ImageMaker(m_history.base, m_history.changes).At(point);
        const Judge judge = [this, range](const Seen& seen) {
            return JudgeByStates(m_history, range, seen);
        };
        if (m_random.OneIn(2)) {
            return Examine(m_disk, image, m_history, m_random.Next(), judge);
        }
        return RunAppended(image, judge);
    }

  private:
    Problem RunAppended(const DiskImage& image, const Judge& judge) {
        SteadyCalls::SetStamp(kSecondStamp);
        m_disk.Mount(image);
        m_disk.StartRecording();
        const Appending appending{1 + m_random.Below(3), m_history.recordSize,
                                  static_cast<u32>(m_random.Next())};
        Seen found;
        Seen left;
        Problem problem = Visit(m_history.ConnString(), appending, &found, &left);
        const Changes changes = m_disk.TakeChanges();
        problem = problem.empty() ? judge(found) : problem;
        if (!problem.empty()) {
            return problem;
        }
        const std::vector<CrashPoint> points = CrashPointsOf(changes, kPoints, m_random.Next());
        const CrashPoint& point = points[m_random.Below(static_cast<u32>(points.size()))];
        return Examine(m_disk, ImageMaker(image, changes).At(point), m_history, m_random.Next(),
                       [&](const Seen& seen) -> Problem {
                           return seen == found || seen == left
                                      ? ""
                                      : "found " + Describe(seen) +
                                            " after an opening that found " + Describe(found) +
                                            " and left " + Describe(left);
                       });
    }

    MemoryDisk& m_disk;
    const History& m_history;
    model::Random m_random;
};

// Once the file is there.
std::vector<CrashPoint> PointsOf(const History& history, u64 seed) {
    std::vector<CrashPoint> points = CrashPointsOf(history.changes, kPoints, seed);
    const std::size_t created = history.marks.at(1).changes;
    std::erase_if(points, [=](const CrashPoint& point) { return point.changes < created; });
    return points;
}

void RunGroup(GroupRun& run) {
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
    const std::vector<CrashPoint> points = PointsOf(result.history, run.Seed());
    model::Random random(run.Seed());
    for (u64 number = 1; number <= kCasesOfAGroup; ++number) {
        const CrashPoint& point = points[random.Below(static_cast<u32>(points.size()))];
        run.Case(number, [&] {
            GhostHunt hunt(disk, result.history, Mix(run.Seed(), number));
            return plan.commitBarrier && number % 2 == 0 ? hunt.RunPowerCut() : hunt.Run(point);
        });
    }
}

const RegisteredFamily kFamily({.name = "ghost-commits",
                                .title = "ghost commits, and commits retried after a failed flush",
                                .cases = 800,
                                .runGroup = &RunGroup});

}  // namespace

}  // namespace k9erepl::reliability
