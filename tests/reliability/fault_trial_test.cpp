// Trials must see what the library does wrong, and the disk and the gate must do what a family
// says.
#include "reliability/fault_trial.h"

#include <gtest/gtest.h>

#include "platform/file.h"
#include "reliability/gate_fault.h"
#include "reliability/steady_calls.h"

namespace k9erepl::reliability {

namespace {

using test::SystemErrorKind;

class Trials : public ::testing::Test {
  protected:
    TrialResult Run(u64 seed, GateFault::Strike strike, bool invisible = false) {
        GateFault fault(disk, std::move(strike), invisible);
        const TrialResult result = RunTrial(disk, {.moreSettings = ""}, fault, seed);
        calls = fault.Calls();
        return result;
    }

    const SteadyCalls steady;
    MemoryDisk disk;
    u64 calls = 0;
};

// Every flush of an index save and every write of the storage behind the first.
std::optional<Permit> FailLaterWrites(u64 number, const Attempt& attempt) {
    const bool fails = number > 20 && attempt.call == test::SystemCall::kWrite;
    return fails ? std::optional(Permit{SystemErrorKind::kInputOutput}) : std::nullopt;
}

}  // namespace

TEST_F(Trials, PassUndisturbed) {
    for (u64 seed = 1; seed <= 20; ++seed) {
        const TrialResult result = Run(seed, nullptr);
        EXPECT_EQ(result.problem, "") << seed;
        EXPECT_EQ(result.failures, 0U) << seed;
        EXPECT_GT(calls, 40U) << seed;
    }
}

TEST_F(Trials, AreTheSameForOneSeed) {
    const TrialResult one = Run(3, nullptr);
    const u64 callsOfOne = calls;
    const TrialResult other = Run(3, nullptr);
    EXPECT_EQ(calls, callsOfOne);
    EXPECT_EQ(other.left.Hash(), one.left.Hash());
    EXPECT_NE(Run(4, nullptr).left.Hash(), one.left.Hash());
}

TEST_F(Trials, AcceptADocumentedFailure) {
    const TrialResult result = Run(3, &FailLaterWrites);
    EXPECT_EQ(result.problem, "");
    EXPECT_EQ(result.failures, 1U);
}

TEST_F(Trials, ReportAFailureThatNothingExplains) {
    const TrialResult result = Run(3, &FailLaterWrites, true);
    EXPECT_NE(result.problem.find(" answers 4"), std::string::npos) << result.problem;
}

TEST_F(Trials, ReportALostWrite) {
    // What the gate swallows, the library believes to be written.
    const TrialResult whole = Run(3, nullptr);
    DiskImage image;
    FileBytes bytes = *whole.left.Find(StoragePath());
    bytes.SetEnd(1064);
    image.Put(StoragePath(), bytes);
    const std::size_t last = whole.history.states.size() - 1;
    const Problem problem = Examine(disk, image, whole.history, 1, [&](const Seen& seen) {
        return JudgeByStates(whole.history, {last, last}, seen);
    });
    EXPECT_EQ(problem.find("content is none that it had"), 0U) << problem;
}

TEST_F(Trials, AFullDiskTakesWhatFits) {
    platform::File file;
    const std::string path = std::string(kFolder) + "a";
    ASSERT_TRUE(file.Open(path.c_str(), {.access = platform::FileAccess::kReadWrite,
                                         .disposition = platform::FileDisposition::kCreateNew}));
    disk.SetCapacity(10, false);
    u32 put = 0;
    EXPECT_FALSE(file.Write("0123456789abcdef", 16, &put));
    EXPECT_EQ(put, 10U);
    EXPECT_EQ(disk.FullCount(), 2U);
    EXPECT_TRUE(file.SetEnd(20)) << "only sized ahead";
    EXPECT_EQ(disk.UsedBytes(false), 10);
    EXPECT_EQ(disk.UsedBytes(true), 20);
    disk.SetCapacity(20, true);
    EXPECT_FALSE(file.SetEnd(21));
    EXPECT_TRUE(file.SetEnd(5));
    EXPECT_TRUE(file.Seek(5));
    EXPECT_TRUE(file.Write("0123456789abcde", 15, &put));
    EXPECT_EQ(disk.FullCount(), 1U);
}

}  // namespace k9erepl::reliability
