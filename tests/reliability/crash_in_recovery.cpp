// The family of repeated crashes: a process that is killed in the middle of a run, the next one in
// the middle of its opening or of what it appends first, and the one after that again.
#include <optional>

#include "reliability/crash_points.h"
#include "reliability/family.h"
#include "reliability/oracle.h"
#include "reliability/steady_calls.h"
#include "reliability/workload.h"

namespace k9erepl::reliability {

namespace {

constexpr u32 kCasesOfAGroup = 100;
constexpr std::size_t kPoints = 2000;
constexpr u32 kFirstStamp = 0x10000000;
constexpr u32 kStampStep = 0x10000000;

// An opening that was recorded: what it found, and what it would have left.
struct Recovery {
    DiskImage base;
    Changes changes;
    Seen found;
    Seen left;
};

class RepeatedCrash {
  public:
    RepeatedCrash(MemoryDisk& disk, const History& history, u64 seed)
        : m_disk(disk), m_history(history), m_random(seed) {}

    Problem Run(const std::vector<CrashPoint>& points) {
        const CrashPoint point = AnyOf(points);
        const StateRange range = m_history.AfterKill(point.changes, point.cut > 0);
        DiskImage image = ImageMaker(m_history.base, m_history.changes).At(point);
        Judge judge = [this, range](const Seen& seen) {
            return JudgeByStates(m_history, range, seen);
        };
        for (u32 level = 0; level < 2; ++level) {
            Recovery recovery;
            if (Problem problem = Recover(image, level, &recovery); !problem.empty()) {
                return "recovery " + std::to_string(level + 1) + ": " + problem;
            }
            if (Problem problem = judge(recovery.found); !problem.empty()) {
                return "recovery " + std::to_string(level + 1) + ": " + problem;
            }
            image = CrashIn(recovery, &judge);
        }
        return Examine(m_disk, image, m_history, m_random.Next(), judge);
    }

  private:
    const CrashPoint& AnyOf(const std::vector<CrashPoint>& points) {
        return points[m_random.Below(static_cast<u32>(points.size()))];
    }

    Problem Recover(const DiskImage& image, u32 level, Recovery* recovery) {
        recovery->base = image;
        SteadyCalls::SetStamp(kFirstStamp + level * kStampStep);
        m_disk.Mount(image);
        m_disk.StartRecording();
        const Appending appending{
            m_random.Below(3),
            m_history.recordSize > 0 ? m_history.recordSize : m_random.Below(100),
            static_cast<u32>(m_random.Next())};
        Problem problem =
            Visit(m_history.ConnString(), appending, &recovery->found, &recovery->left);
        if (appending.records == 0) {
            recovery->left = recovery->found;
        }
        recovery->changes = m_disk.TakeChanges();
        return problem;
    }

    // The content is what the opening found, or that with what it appended.
    DiskImage CrashIn(const Recovery& recovery, Judge* judge) {
        const CrashPoint point = AnyOf(CrashPointsOf(recovery.changes, kPoints, m_random.Next()));
        const bool ended = point.changes == recovery.changes.size();
        const Seen found = ended ? recovery.left : recovery.found;
        *judge = [found, left = recovery.left](const Seen& seen) -> Problem {
            return seen == found || seen == left
                       ? ""
                       : "found " + Describe(seen) + " after a recovery that had found " +
                             Describe(found) + " and would have left " + Describe(left);
        };
        return ImageMaker(recovery.base, recovery.changes).At(point);
    }

    MemoryDisk& m_disk;
    const History& m_history;
    model::Random m_random;
};

void RunGroup(GroupRun& run) {
    const SteadyCalls steady;
    MemoryDisk disk;
    const History history = MakeHistory(disk, run);
    const std::vector<CrashPoint> points = CrashPointsOf(history.changes, kPoints, run.Seed());
    for (u64 number = 1; number <= kCasesOfAGroup; ++number) {
        run.Case(number,
                 [&] { return RepeatedCrash(disk, history, Mix(run.Seed(), number)).Run(points); });
    }
}

const RegisteredFamily kFamily({.name = "crash-in-recovery",
                                .title = "crash inside recovery, twice nested",
                                .cases = 5000,
                                .runGroup = &RunGroup});

}  // namespace

}  // namespace k9erepl::reliability
