// When to flush, over a clock that a test sets, and what a flush takes from one block.
#include "engine/flush_policy.h"

#include <gtest/gtest.h>

#include <cstring>

#include "engine/flush_run.h"
#include "engine/storage_fixture.h"
#include "support/fault_injection.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

OpenSettings FlushSettings(FlushMode mode, i64 threshold) {
    OpenSettings settings;
    settings.flushMode = mode;
    settings.flushTransNum = static_cast<i32>(threshold);
    settings.flushDataSize = threshold;
    settings.flushTimeout = 1000;
    return settings;
}
OpenSettings PerTrans(i32 number) {
    return FlushSettings(FlushMode::kPerTrans, number);
}
OpenSettings PerData(i64 size) {
    return FlushSettings(FlushMode::kPerData, size);
}

// The clock stands when the policy is made.
class FlushPolicyAt : public ::testing::Test {
  protected:
    void CommitOf(const OpenSettings& settings, u64 dataSize = 0) {
        policy.CountCommit(settings.flushMode, dataSize);
    }
    bool NeededAfterCommitOf(const OpenSettings& settings, u64 dataSize = 0) {
        CommitOf(settings, dataSize);
        return policy.FlushNeeded(settings);
    }

    ScopedSystemCalls systemCalls;
    bool clockStands = (SetTickCount(5000), true);
    FlushPolicy policy;
};

using FlushThreshold = FlushPolicyAt;
using FlushTimeout = FlushPolicyAt;

}  // namespace

TEST_F(FlushThreshold, IsANumberOfTransactionsInPerTransAndOfBytesInPerData) {
    EXPECT_FALSE(NeededAfterCommitOf(PerTrans(3)));
    EXPECT_FALSE(NeededAfterCommitOf(PerTrans(3)));
    EXPECT_TRUE(NeededAfterCommitOf(PerTrans(3)));
    EXPECT_FALSE(NeededAfterCommitOf(PerData(100), 60));
    EXPECT_TRUE(NeededAfterCommitOf(PerData(100), 40));
}

TEST_F(FlushThreshold, OfZeroFlushesAtEveryCommit) {
    EXPECT_TRUE(NeededAfterCommitOf(PerTrans(0)));
    EXPECT_TRUE(NeededAfterCommitOf(PerData(0), 1));
}

TEST_F(FlushThreshold, OfMinusOneIsNeverReachedByTransactionsAndAlwaysByBytes) {
    for (int i = 0; i < 1000; ++i) {
        EXPECT_FALSE(NeededAfterCommitOf(PerTrans(-1)));
    }
    EXPECT_FALSE(policy.FlushNeeded(PerData(-1)));
    EXPECT_TRUE(NeededAfterCommitOf(PerData(-1), 1));
}

TEST_F(FlushThreshold, IsAskedOfTheCounterOfItsModeOnly) {
    CommitOf(PerTrans(1));
    EXPECT_FALSE(policy.FlushNeeded(PerData(0)));
    EXPECT_FALSE(NeededAfterCommitOf(FlushSettings(FlushMode::kNoFlush, 1), 5));
}

TEST_F(FlushThreshold, CommitsDuringAFlushStayCounted) {
    const OpenSettings settings = PerTrans(2);
    CommitOf(settings);
    CommitOf(settings);
    const FlushPolicy::Counted covered = policy.Now();
    CommitOf(settings);
    policy.Flushed(covered);
    EXPECT_FALSE(policy.FlushNeeded(settings));
    EXPECT_TRUE(NeededAfterCommitOf(settings));
}

TEST_F(FlushTimeout, CountsFromTheLastFlushWhenSomethingWasCommitted) {
    for (const OpenSettings& settings : {PerTrans(10), PerData(1000)}) {
        policy.Clear();
        policy.RecordFlushTime();
        AdvanceTickCount(1'000'000);
        EXPECT_FALSE(policy.FlushNeeded(settings)) << "nothing to flush";
        policy.RecordFlushTime();
        CommitOf(settings, 1);
        AdvanceTickCount(999);
        EXPECT_FALSE(policy.FlushNeeded(settings));
        AdvanceTickCount(1);
        EXPECT_TRUE(policy.FlushNeeded(settings));
    }
}

TEST_F(FlushTimeout, SurvivesTheWrapOfTheTickCount) {
    CommitOf(PerTrans(10));
    SetTickCount(0xFFFFFF00);
    policy.RecordFlushTime();
    SetTickCount(0x00000010);  // 272 milliseconds later
    EXPECT_FALSE(policy.FlushNeeded(PerTrans(10)));
    SetTickCount(0x000002E8);  // 1000 milliseconds later
    EXPECT_TRUE(policy.FlushNeeded(PerTrans(10)));
}

// The coarse clock may stand a little before the last flush, also over the wrap.
TEST_F(FlushTimeout, AtACommitIsReadFromTheCoarseClock) {
    const OpenSettings settings = PerTrans(10);
    u32 (*&coarse)() = platform::TheSystemCalls().coarseTickCount;
    CommitOf(settings);
    coarse = [] { return u32{4996}; };
    EXPECT_FALSE(policy.FlushNeededAtCommit(settings));
    coarse = [] { return u32{5999}; };
    EXPECT_FALSE(policy.FlushNeededAtCommit(settings));
    coarse = [] { return u32{6000}; };
    EXPECT_TRUE(policy.FlushNeededAtCommit(settings));
    SetTickCount(3);
    policy.RecordFlushTime();
    coarse = [] { return u32{0xFFFFFFFF}; };
    EXPECT_FALSE(policy.FlushNeededAtCommit(settings));
    coarse = [] { return u32{1003}; };
    EXPECT_TRUE(policy.FlushNeededAtCommit(settings));
}

TEST_F(FlushTimeout, ClearedCountersNeedNoFlushHoweverLate) {
    CommitOf(PerTrans(1));
    CommitOf(PerData(1), 10);
    policy.Clear();
    AdvanceTickCount(1'000'000);
    EXPECT_FALSE(policy.FlushNeeded(PerTrans(1)));
    EXPECT_FALSE(policy.FlushNeeded(PerData(1)));
}

// --- The run of one block ------------------------------------------------------------------------

namespace {

constexpr u64 kRunRecordSize = 24 + 2;  // of the records below

// A block with the given revisions, each with two bytes of data.
struct BlockToFlush {
    explicit BlockToFlush(const std::vector<i64>& revs) {
        store.SetUp(1024, 0);
        for (const i64 rev : revs) {
            Record record("ab", 0, rev);
            EXPECT_EQ(store.Place(*record.Get(), -1), RC_OK);
        }
    }
    ~BlockToFlush() { store.Reset(); }
    BlockToFlush(const BlockToFlush&) = delete;
    BlockToFlush& operator=(const BlockToFlush&) = delete;

    BlockStore store;
};

}  // namespace

TEST(FlushRun, TakesWhatIsNotFlushedUpToTheLimit) {
    struct Case {
        std::vector<i64> revs;
        u64 flushedRecords;  // of them
        i64 flushedRev;
        i64 limit;
        u64 begin;  // in records
        u64 end;
        i64 lastRev;
        bool closes;  // the block ends at the limit: the commit block may follow
        bool reachedLimit;
    };
    const Case cases[] = {{{1, 2, 3}, 0, 0, 5, 0, 3, 3, false, false},
                          {{1, 2, 3}, 0, 0, 3, 0, 3, 3, true, false},
                          {{1, 2, 3}, 1, 1, 3, 1, 3, 3, true, false},
                          {{1, 2, 5, 9}, 0, 0, 4, 0, 2, 2, false, true},
                          {{1, 2, 3, 4}, 0, 2, 3, 2, 3, 3, false, true}};
    for (const Case& wanted : cases) {
        SCOPED_TRACE(&wanted - cases);
        BlockToFlush block(wanted.revs);
        block.store.Newest().flushedEnd = wanted.flushedRecords * kRunRecordSize;
        FlushRun run;
        EXPECT_EQ(FindFlushRun(block.store.Newest(), wanted.flushedRev, wanted.limit, &run), RC_OK);
        EXPECT_EQ(run.begin, wanted.begin * kRunRecordSize);
        EXPECT_EQ(run.end, wanted.end * kRunRecordSize);
        EXPECT_EQ(run.lastRev, wanted.lastRev);
        EXPECT_EQ(run.closes, wanted.closes);
        EXPECT_EQ(run.reachedLimit, wanted.reachedLimit);
    }
}

TEST(FlushRun, IsEmptyWhenTheFileHasTheBlockOrTheLimitLiesBelow) {
    BlockToFlush block({5, 6});
    FlushRun run;
    EXPECT_EQ(FindFlushRun(block.store.Newest(), 0, 4, &run), RC_OK);
    EXPECT_TRUE(run.IsEmpty());
    EXPECT_TRUE(run.reachedLimit);
    for (u64 records : {2U, 0U}) {
        block.store.Newest().used = records * kRunRecordSize;
        block.store.Newest().flushedEnd = block.store.Newest().used;
        run = {};
        EXPECT_EQ(FindFlushRun(block.store.Newest(), 6, 6, &run), RC_OK);
        EXPECT_TRUE(run.IsEmpty());
        EXPECT_FALSE(run.closes);
    }
}

TEST(FlushRun, OfARecordThatIsNoneIsBadData) {
    const LogCapture log;
    for (const u32 size : {0U, 23U, 1000000U, 0xFFFFFFFFU}) {
        BlockToFlush block({1, 2, 3});
        std::memcpy(block.store.Newest().Data() + kRunRecordSize + 4, &size, sizeof size);
        FlushRun run;
        EXPECT_EQ(FindFlushRun(block.store.Newest(), 0, 2, &run), RC_BAD_DATA) << size;
    }
    BlockToFlush block({1, 2, 3});
    block.store.Newest().Data()[kRunRecordSize] ^= 1;
    FlushRun run;
    EXPECT_EQ(FindFlushRun(block.store.Newest(), 0, 2, &run), RC_BAD_DATA);
    EXPECT_EQ(log.Count("Wrong rec signature while enum to flush;block eRepl#0"), 5U) << log;
}

}  // namespace k9erepl::test
