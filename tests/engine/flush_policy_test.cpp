// When to flush: thresholds and the time-out, over a clock that a test sets.
#include "engine/flush_policy.h"

#include <gtest/gtest.h>

#include "support/fault_injection.h"

namespace k9erepl::test {
namespace {

OpenSettings PerTrans(i32 number) {
    OpenSettings settings;
    settings.flushMode = FlushMode::kPerTrans;
    settings.flushTransNum = number;
    settings.flushTimeout = 1000;
    return settings;
}

OpenSettings PerData(i64 size) {
    OpenSettings settings = PerTrans(0);
    settings.flushMode = FlushMode::kPerData;
    settings.flushDataSize = size;
    return settings;
}

// The clock stands at `now` when the policy is made.
class FlushPolicyAt : public ::testing::Test {
  protected:
    void CommitOf(const OpenSettings& settings, u64 dataSize = 0) {
        policy.CountCommit(settings.flushMode, dataSize);
    }

    ScopedSystemCalls systemCalls;
    bool clockStands = (SetTickCount(5000), true);
    FlushPolicy policy;
};

using FlushThreshold = FlushPolicyAt;
using FlushTimeout = FlushPolicyAt;

}  // namespace

TEST_F(FlushThreshold, IsTheNumberOfCommittedTransactionsInPerTrans) {
    const OpenSettings settings = PerTrans(3);
    CommitOf(settings);
    CommitOf(settings);
    EXPECT_FALSE(policy.FlushNeeded(settings));
    CommitOf(settings);
    EXPECT_TRUE(policy.FlushNeeded(settings));
}

TEST_F(FlushThreshold, IsTheNumberOfCommittedBytesInPerData) {
    const OpenSettings settings = PerData(100);
    CommitOf(settings, 60);
    EXPECT_FALSE(policy.FlushNeeded(settings));
    CommitOf(settings, 40);
    EXPECT_TRUE(policy.FlushNeeded(settings));
}

TEST_F(FlushThreshold, OfZeroFlushesAtEveryCommit) {
    CommitOf(PerTrans(0));
    EXPECT_TRUE(policy.FlushNeeded(PerTrans(0)));
    CommitOf(PerData(0), 1);
    EXPECT_TRUE(policy.FlushNeeded(PerData(0)));
}

TEST_F(FlushThreshold, OfMinusOneTransactionsIsNeverReached) {
    const OpenSettings settings = PerTrans(-1);
    for (int i = 0; i < 1000; ++i) {
        CommitOf(settings);
    }
    EXPECT_FALSE(policy.FlushNeeded(settings));
}

TEST_F(FlushThreshold, OfMinusOneBytesIsAlwaysReached) {
    const OpenSettings settings = PerData(-1);
    EXPECT_FALSE(policy.FlushNeeded(settings));
    CommitOf(settings, 1);
    EXPECT_TRUE(policy.FlushNeeded(settings));
}

TEST_F(FlushThreshold, IsAskedOfTheCounterOfItsModeOnly) {
    CommitOf(PerTrans(1));
    EXPECT_FALSE(policy.FlushNeeded(PerData(0)));
    OpenSettings noFlush = PerTrans(1);
    noFlush.flushMode = FlushMode::kNoFlush;
    CommitOf(noFlush, 5);
    EXPECT_FALSE(policy.FlushNeeded(noFlush));
}

TEST_F(FlushThreshold, CommitsDuringAFlushStayCounted) {
    const OpenSettings settings = PerTrans(2);
    CommitOf(settings);
    CommitOf(settings);
    const FlushPolicy::Counted covered = policy.Now();
    CommitOf(settings);
    policy.Flushed(covered);
    EXPECT_FALSE(policy.FlushNeeded(settings));
    CommitOf(settings);
    EXPECT_TRUE(policy.FlushNeeded(settings));
}

TEST_F(FlushTimeout, CallsForAFlushWhenSomethingWasCommitted) {
    const OpenSettings settings = PerTrans(10);
    CommitOf(settings);
    AdvanceTickCount(999);
    EXPECT_FALSE(policy.FlushNeeded(settings));
    AdvanceTickCount(1);
    EXPECT_TRUE(policy.FlushNeeded(settings));
}

TEST_F(FlushTimeout, AppliesToPerDataToo) {
    const OpenSettings settings = PerData(1000);
    CommitOf(settings, 1);
    AdvanceTickCount(1000);
    EXPECT_TRUE(policy.FlushNeeded(settings));
}

TEST_F(FlushTimeout, NeverCallsForAFlushOfNothing) {
    AdvanceTickCount(1000000);
    EXPECT_FALSE(policy.FlushNeeded(PerTrans(1)));
    EXPECT_FALSE(policy.FlushNeeded(PerData(1)));
}

TEST_F(FlushTimeout, CountsFromTheLastFlush) {
    const OpenSettings settings = PerTrans(10);
    CommitOf(settings);
    AdvanceTickCount(900);
    policy.RecordFlushTime();
    AdvanceTickCount(900);
    EXPECT_FALSE(policy.FlushNeeded(settings));
    AdvanceTickCount(100);
    EXPECT_TRUE(policy.FlushNeeded(settings));
}

TEST_F(FlushTimeout, SurvivesTheWrapOfTheTickCount) {
    const OpenSettings settings = PerTrans(10);
    CommitOf(settings);
    SetTickCount(0xFFFFFF00);
    policy.RecordFlushTime();
    SetTickCount(0x00000010);  // 272 milliseconds later
    EXPECT_FALSE(policy.FlushNeeded(settings));
    SetTickCount(0x000002E8);  // 1000 milliseconds later
    EXPECT_TRUE(policy.FlushNeeded(settings));
}

TEST_F(FlushTimeout, ClearedCountersNeedNoFlushHoweverLate) {
    CommitOf(PerTrans(1));
    CommitOf(PerData(1), 10);
    policy.Clear();
    AdvanceTickCount(1000000);
    EXPECT_FALSE(policy.FlushNeeded(PerTrans(1)));
    EXPECT_FALSE(policy.FlushNeeded(PerData(1)));
}

}  // namespace k9erepl::test
