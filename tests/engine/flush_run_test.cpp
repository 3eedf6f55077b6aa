// What a flush takes from one block.
#include "engine/flush_run.h"

#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <cstring>
#include <memory>
#include <string>

#include "engine/storage_fixture.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

constexpr u64 kRecordSize = 24 + 2;  // of the records below

// One block with the given revisions, each with two bytes of data.
class OneBlock {
  public:
    OneBlock(std::initializer_list<i64> revs) {
        m_store.SetUp(1024, 0);
        for (const i64 rev : revs) {
            Record record("ab", 0, rev);
            EXPECT_EQ(m_store.Place(*record.Get(), -1), RC_OK);
        }
    }
    ~OneBlock() { m_store.Reset(); }
    OneBlock(const OneBlock&) = delete;
    OneBlock& operator=(const OneBlock&) = delete;

    K9eReplBlock& Get() { return m_store.Newest(); }
    FlushRun Find(i64 flushedRev, i64 limit) {
        FlushRun run;
        EXPECT_EQ(FindFlushRun(Get(), flushedRev, limit, &run), RC_OK);
        return run;
    }

  private:
    BlockStore m_store;
};

}  // namespace

TEST(FlushRun, TakesAWholeBlockBelowTheLimit) {
    OneBlock block{1, 2, 3};
    const FlushRun run = block.Find(0, 5);
    EXPECT_EQ(run.begin, 0U);
    EXPECT_EQ(run.end, 3 * kRecordSize);
    EXPECT_EQ(run.lastRev, 3);
    EXPECT_FALSE(run.closes);
    EXPECT_FALSE(run.reachedLimit);
}

TEST(FlushRun, ClosesTheFlushWhenTheBlockEndsAtTheLimit) {
    OneBlock block{1, 2, 3};
    EXPECT_TRUE(block.Find(0, 3).closes);
}

TEST(FlushRun, BeginsBehindWhatWasFlushed) {
    OneBlock block{1, 2, 3};
    block.Get().flushedEnd = kRecordSize;
    const FlushRun run = block.Find(1, 3);
    EXPECT_EQ(run.begin, kRecordSize);
    EXPECT_EQ(run.end, 3 * kRecordSize);
}

TEST(FlushRun, IsEmptyForABlockThatIsInTheFile) {
    OneBlock block{1, 2};
    block.Get().flushedEnd = block.Get().used;
    EXPECT_TRUE(block.Find(2, 2).IsEmpty());
    EXPECT_FALSE(block.Find(2, 2).closes);
}

TEST(FlushRun, IsEmptyForAnEmptyBlock) {
    OneBlock block{1};
    block.Get().used = 0;
    EXPECT_TRUE(block.Find(0, 9).IsEmpty());
}

TEST(FlushRun, EndsAtTheLastRecordThatIsNotAboveTheLimit) {
    OneBlock block{1, 2, 5, 9};
    const FlushRun run = block.Find(0, 4);
    EXPECT_EQ(run.begin, 0U);
    EXPECT_EQ(run.end, 2 * kRecordSize);
    EXPECT_EQ(run.lastRev, 2);
    EXPECT_TRUE(run.reachedLimit);
    EXPECT_FALSE(run.closes) << "the commit block has no place among the records";
}

TEST(FlushRun, PassesOverRecordsThatAreFlushedAlready) {
    OneBlock block{1, 2, 3, 4};
    const FlushRun run = block.Find(2, 3);
    EXPECT_EQ(run.begin, 2 * kRecordSize);
    EXPECT_EQ(run.end, 3 * kRecordSize);
    EXPECT_EQ(run.lastRev, 3);
}

TEST(FlushRun, IsEmptyWhenEverythingLiesAboveTheLimit) {
    OneBlock block{5, 6};
    const FlushRun run = block.Find(0, 4);
    EXPECT_TRUE(run.IsEmpty());
    EXPECT_TRUE(run.reachedLimit);
}

TEST(FlushRun, AWrongSignatureIsBadData) {
    OneBlock block{1, 2, 3};
    block.Get().Data()[kRecordSize] ^= 1;
    const LogCapture log;
    FlushRun run;
    EXPECT_EQ(FindFlushRun(block.Get(), 0, 2, &run), RC_BAD_DATA);
    EXPECT_EQ(log.CodeOf("Wrong rec signature while enum to flush;block eRepl#0"), RC_BAD_DATA);
}

TEST(FlushRun, ASizeThatLeavesTheBlockIsBadData) {
    for (const u32 size : {0U, 23U, 1000000U, 0xFFFFFFFFU}) {
        OneBlock block{1, 2, 3};
        std::memcpy(block.Get().Data() + kRecordSize + 4, &size, sizeof(size));
        FlushRun run;
        EXPECT_EQ(FindFlushRun(block.Get(), 0, 2, &run), RC_BAD_DATA) << size;
    }
}

}  // namespace k9erepl::test
