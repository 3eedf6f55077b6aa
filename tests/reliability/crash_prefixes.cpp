// The family of killed processes: a storage as any part of a run leaves it, every call before the
// moment done, every call behind it not, and a write between them perhaps done in part.
#include <unordered_set>

#include "reliability/crash_points.h"
#include "reliability/family.h"
#include "reliability/oracle.h"
#include "reliability/steady_calls.h"
#include "reliability/workload.h"

namespace k9erepl::reliability {

namespace {

constexpr std::size_t kPointsOfAGroup = 1500;

// Half of the groups have the asynchronous writer.
void RunGroup(GroupRun& run) {
    static std::unordered_set<u64> seen;  // images are distinct in the whole family
    const SteadyCalls steady;
    MemoryDisk disk;
    const History history = MakeHistory(disk, run);
    ImageMaker maker(history.base, history.changes);
    u64 number = 0;
    for (const CrashPoint& point : CrashPointsOf(history.changes, kPointsOfAGroup, run.Seed())) {
        if (!run.Wants(++number)) {
            continue;
        }
        const StateRange range = history.AfterKill(point.changes, point.cut > 0);
        const DiskImage image = maker.At(point);
        if (!seen.insert(Mix(image.Hash(), Mix(range.low, range.high))).second) {
            continue;
        }
        run.Keep(image, history.changes, point.changes);
        run.Case(number, [&] {
            return Examine(disk, image, history, run.Seed() + number,
                           [&](const Seen& s) { return JudgeByStates(history, range, s); });
        });
    }
}

const RegisteredFamily kFamily({.name = "crash-prefixes",
                                .title = "crash images: prefixes and cuts",
                                .cases = 100000,
                                .runGroup = &RunGroup});

}  // namespace

}  // namespace k9erepl::reliability
