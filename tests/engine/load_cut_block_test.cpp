// Reopening through the index when a block's lowest revision is not that of its first record: after
// a clear into a gap between revisions, and behind a revision that was used up without a record.
// The index names the record that is there, and loading reads the end of the file only.
#include <gtest/gtest.h>

#include "engine/clear_fixture.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

// Two records of 49000 bytes in each block; 100 of them are 5 MB.
constexpr std::string_view kTwoABlock =
    "block_size=100000;cache_type=Last2;flush_mode=PerTrans;flush_trans_num=1;"
    "flush_timeout=3600000;read_buffers_count=1;";
constexpr u64 kAFewBlocks = 1'000'000;

class LoadOfACutBlock : public ::testing::Test {
  protected:
    void Put(i64 first, i64 last) {
        const std::string text(49000, 'x');
        for (i64 rev = first; rev <= last; ++rev) {
            ASSERT_EQ(m_storage.InsertP(rev, text), RC_OK);
        }
    }
    void PutInOneTransaction(const std::function<void()>& put) {
        ASSERT_EQ(m_storage.Begin(), RC_OK);
        put();
        ASSERT_EQ(m_storage.Commit(), RC_OK);
    }
    // Uses one revision up; the block that was to take the record stays without one.
    void Refuse() { EXPECT_EQ(m_storage.Insert(std::string(100001, 'x')), RC_INVALID_ARG); }

    // The revisions from 1 to 100 without these.
    static Revs AllBut(i64 first, i64 last) {
        Revs content = RevRange(1, first - 1);
        const Revs behind = RevRange(last + 1, 100);
        content.insert(content.end(), behind.begin(), behind.end());
        return content;
    }

    // The first reopening finds the index of the clear, or none.
    void ExpectToReadLittle(const Revs& content) {
        ASSERT_NO_FATAL_FAILURE(Reopen(content));
        ASSERT_NO_FATAL_FAILURE(Reopen(content));
        EXPECT_EQ(m_log.CountContaining("Index test passed"), 1U);
        EXPECT_LT(m_bytesOfLoad, kAFewBlocks);
        EXPECT_EQ(ReadIndexEntries(m_storage), EntriesInMemory(m_storage));
    }

    ReadMeter m_meter;
    TestStorage m_storage{kTwoABlock};
    LogCapture m_log;
    u64 m_bytesOfLoad = 0;

  private:
    void Reopen(const Revs& content) {
        m_storage.Close();
        m_log.Clear();
        m_meter.Restart();
        ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK) << m_log;
        m_bytesOfLoad = m_meter.Bytes();
        EXPECT_EQ(m_log.CountContaining("Index test failed"), 0U);
        EXPECT_EQ(m_log.CountContaining("loading without it"), 0U);
        EXPECT_EQ(RevsOf(m_storage.Records()), content);
    }
};

class LoadAfterAClearIntoAGap : public LoadOfACutBlock,
                                public ::testing::WithParamInterface<u32> {};
INSTANTIATE_TEST_SUITE_P(Mode, LoadAfterAClearIntoAGap,
                         ::testing::Values(kLogical, kSqueeze, kSqueezeBackup));

TEST_P(LoadAfterAClearIntoAGap, AtABlocksEndReadsLittle) {
    Put(1, 100);
    Put(201, 210);
    ASSERT_EQ(m_storage.Clear(150, GetParam()), RC_OK);
    ExpectToReadLittle(RevRange(201, 210));
}

TEST_P(LoadAfterAClearIntoAGap, InsideABlockReadsLittle) {
    Put(1, 99);
    Put(201, 210);
    ASSERT_EQ(m_storage.Clear(150, GetParam()), RC_OK);
    ExpectToReadLittle(RevRange(201, 210));
}

TEST_P(LoadAfterAClearIntoAGap, InsideATransactionReadsLittle) {
    PutInOneTransaction([this] {
        Put(1, 100);
        Put(201, 210);
    });
    ASSERT_EQ(m_storage.Clear(150, GetParam()), RC_OK);
    ExpectToReadLittle(RevRange(201, 210));
}

TEST_P(LoadAfterAClearIntoAGap, OfRevisionsThatWereUsedUpReadsLittle) {
    Put(1, 100);
    PutInOneTransaction([this] {
        Refuse();
        Refuse();
        Put(103, 110);
    });
    ASSERT_EQ(m_storage.Clear(102, GetParam()), RC_OK);
    ExpectToReadLittle(RevRange(103, 110));
}

TEST_P(LoadAfterAClearIntoAGap, OnceMoreReadsLittle) {
    Put(1, 50);
    Put(101, 150);
    Put(201, 210);
    ASSERT_EQ(m_storage.Clear(75, GetParam()), RC_OK);
    ASSERT_EQ(m_storage.Clear(175, GetParam()), RC_OK);
    ExpectToReadLittle(RevRange(201, 210));
    ASSERT_EQ(m_storage.Clear(204, GetParam()), RC_OK);
    ExpectToReadLittle(RevRange(204, 210));
}

TEST_F(LoadOfACutBlock, BehindARefusedRecordReadsLittle) {
    Put(1, 50);
    PutInOneTransaction([this] {
        Refuse();
        Put(52, 100);
    });
    ExpectToReadLittle(AllBut(51, 51));
}

TEST_F(LoadOfACutBlock, WhoseFirstRecordWasRolledBackReadsLittle) {
    Put(1, 50);
    PutInOneTransaction([this] { Refuse(); });
    ASSERT_EQ(m_storage.Begin(), RC_OK);
    Put(52, 53);
    ASSERT_EQ(m_storage.Rollback(), RC_OK);
    Put(60, 100);
    ExpectToReadLittle(AllBut(51, 59));
}

}  // namespace
}  // namespace k9erepl::test
