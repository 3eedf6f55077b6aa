// Random work of several threads on a storage with the asynchronous writer: clients, readers from
// the disk, the index thread with its idle flushes, the writing thread. Meant for ThreadSanitizer;
// K9EREPL_TSAN_SECONDS says for how long, 2 seconds unless set.
#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>

#include "model/seed_run.h"
#include "model/workout.h"
#include "support/temp_folder.h"

namespace k9erepl::model {

namespace {

constexpr int kRounds = 4;

std::chrono::milliseconds TimeOfARound() {
    const char* const given = std::getenv("K9EREPL_TSAN_SECONDS");  // NOLINT(concurrency-mt-unsafe)
    return std::chrono::milliseconds((given != nullptr ? std::atoi(given) : 2) * 1000 / kRounds);
}

TEST(AsyncThreads, KeepExactlyWhatWasCommitted) {
    KeepQuiet();
    const test::TempFolder folder;
    const std::string path = folder.File("threads.edb");
    ASSERT_EQ(K9eReplStorageCreate(("file=" + path).c_str(), 0), RC_OK);
    Workout workout(path);
    for (u32 round = 0; round < kRounds && !HasFailure(); ++round) {
        workout.Round(round, TimeOfARound());
        workout.Compare();
        EXPECT_EQ(workout.Problem(), "");
    }
    std::cout << workout.Committed() << " committed, " << workout.RolledBack() << " rolled back, "
              << workout.Cleared() << " clears, " << workout.Written() << " writes, "
              << workout.Enumerated() << " enumerated\n";
    EXPECT_GT(workout.Committed(), 0U);
    EXPECT_GT(workout.RolledBack(), 0U);
    EXPECT_GT(workout.Written(), 0U);
    EXPECT_GT(workout.Enumerated(), 0U);
}

}  // namespace

}  // namespace k9erepl::model
