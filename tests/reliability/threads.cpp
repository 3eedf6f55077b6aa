// The row of threads: clients, a reader, one that clears, one that flushes as an idle host does,
// and the library's own threads on one storage, in an order that differs from seed to seed. What
// was committed is there at the end, and after reopenings. Under ThreadSanitizer it finds races,
// too.
#include <k9erepl/storage.h>

#include "model/numbers.h"
#include "model/workout.h"
#include "reliability/row.h"
#include "reliability/yielding_calls.h"
#include "support/temp_folder.h"

namespace k9erepl::reliability {

namespace {

constexpr u32 kCasesOfAGroup = 10;
constexpr u32 kRounds = 2;  // the second one begins with what the first one left
constexpr u32 kStepsMin = 50;
constexpr u32 kStepsMore = 200;

std::string WorkAndCompare(GroupRun& run, u64 seed) {
    model::Random random(seed);
    // Files of the system: a lock of the memory disk's would order what the threads do.
    const test::TempFolder folder;
    const std::string path = folder.File("threads.edb");
    if (const u32 rc = K9eReplStorageCreate(("file=" + path).c_str(), 0); rc != RC_OK) {
        return "creating answers " + std::to_string(rc);
    }
    const YieldingCalls yielding(seed);
    const u64 before = YieldingCalls::Yields();
    model::Workout workout(path, {.clients = 1 + random.Below(2),
                                  .readers = 1,
                                  .clearers = 1,
                                  .idlers = 1,
                                  .async = random.OneIn(2)});
    for (u32 round = 0; round < kRounds && workout.Problem().empty(); ++round) {
        const u32 steps = kStepsMin + random.Below(kStepsMore);
        workout.RoundOfSteps(random.Below(1000), steps, random.Next());
        workout.Compare();
    }
    run.Count("yields", YieldingCalls::Yields() - before);
    run.Count("committed", workout.Committed());
    run.Count("cleared", workout.Cleared());
    run.Count("enumerated", workout.Enumerated());
    run.Count("idle calls", workout.Idled());
    return workout.Problem();
}

void RunGroup(GroupRun& run) {
    for (u64 number = 0; number < kCasesOfAGroup; ++number) {
        run.Case(number, [&] { return WorkAndCompare(run, Mix(run.Seed(), number)); });
    }
}

const RegisteredRow kRow({.name = "threads",
                          .title = "threads with seeded yields",
                          .cases = 500,
                          .runGroup = &RunGroup});

}  // namespace

}  // namespace k9erepl::reliability
