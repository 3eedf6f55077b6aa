// A seed makes one run: the index thread is waited for. What the asynchronous writer gathers into
// one write depends on when it wakes, so that its runs may differ in that.
#include "reliability/workload.h"

#include <gtest/gtest.h>

#include <string>

#include "model/seed_run.h"
#include "reliability/steady_calls.h"

namespace k9erepl::reliability {

namespace {

std::string ChangesOf(u64 seed) {
    const SteadyCalls steady;
    MemoryDisk disk;
    const History history = MakeHistory(disk, {.moreSettings = ""}, seed);
    EXPECT_EQ(history.problem, "");
    EXPECT_EQ(disk.OpenFiles(), 0U);
    std::string text;
    for (const Change& change : history.changes) {
        text += Describe(change) + " " +
                std::to_string(HashOf(change.bytes.data(), change.bytes.size())) + "\n";
    }
    return text;
}

TEST(Workload, DoesTheSameAgainForASeedWithTheSynchronousWriter) {
    model::KeepQuiet();
    for (u64 seed = 0; seed < 50; ++seed) {
        const std::string changes = ChangesOf(seed);
        EXPECT_NE(changes, "");
        EXPECT_EQ(ChangesOf(seed), changes) << "seed " << seed;
    }
}

}  // namespace

}  // namespace k9erepl::reliability
