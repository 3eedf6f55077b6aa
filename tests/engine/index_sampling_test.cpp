// The index test: how many entries it samples, which ones, and what it says of them.
#include <gtest/gtest.h>

#include "engine/index_test.h"
#include "engine/load_fixture.h"
#include "support/fault_injection.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

// A file of records without data, and the entry that each of them would have.
class IndexSampling : public ::testing::Test {
  protected:
    void MakeFile(i64 count) {
        const std::string path = m_folder.File("data");
        FileBuilder file;
        file.NewFile();
        for (i64 rev = 1; rev <= count; ++rev) {
            m_entries.push_back({.rev = rev, .offset = file.Size()});
            file.Record(rev);
        }
        file.Commit(0, count).Save(path);
        ASSERT_EQ(m_file.Open(path, "read_buffers_count=1"), RC_OK);
        m_log.Clear();
    }
    TIndexEntry& Entry(std::size_t n) { return m_entries.at(n); }
    u32 Test() { return TestIndex(m_file, m_entries); }
    std::size_t Samples() const { return m_log.CountContaining("Checked rec rev "); }
    std::string FailureAt(i64 offset) const {
        return "Index test failed at offset " + std::to_string(offset);
    }

    ScopedSystemCalls m_systemCalls;
    TempFolder m_folder;
    LogCapture m_log;
    CSolidStorage m_file;
    std::vector<TIndexEntry> m_entries;
};

TEST_F(IndexSampling, LooksAtEveryEntryOfASmallSet) {
    MakeFile(5);
    EXPECT_EQ(Test(), RC_OK);
    EXPECT_EQ(Samples(), 5U);
    EXPECT_TRUE(m_log.Has("Index test started; cnt 5")) << m_log;
    EXPECT_TRUE(m_log.Has("Checked rec rev 1 at offset 1056")) << m_log;
    EXPECT_TRUE(m_log.Has("Checked rec rev 5 at offset 1152")) << m_log;
}

TEST_F(IndexSampling, LooksAtEveryOneOf3000Entries) {
    MakeFile(3000);
    EXPECT_EQ(Test(), RC_OK);
    EXPECT_EQ(Samples(), 3000U);
}

TEST_F(IndexSampling, LooksAtNoMoreThanOneMoreOf3001Entries) {
    MakeFile(3001);
    EXPECT_EQ(Test(), RC_OK);
    EXPECT_EQ(Samples(), 3001U);
}

TEST_F(IndexSampling, LooksAtTheFirstAndThenAtEverySecondOf6000Entries) {
    MakeFile(6000);
    EXPECT_EQ(Test(), RC_OK);
    EXPECT_EQ(Samples(), 3001U);
    EXPECT_TRUE(m_log.Has("Checked rec rev 1 at offset 1056"));
    EXPECT_TRUE(m_log.Has("Checked rec rev 2 at offset 1080"));
    EXPECT_FALSE(m_log.Has("Checked rec rev 3 at offset 1104"));
    EXPECT_TRUE(m_log.Has("Checked rec rev 4 at offset 1128"));
}

TEST_F(IndexSampling, SpreadsItsSamplesEvenly) {
    MakeFile(10000);
    EXPECT_EQ(Test(), RC_OK);
    EXPECT_NEAR(static_cast<double>(Samples()), 3000.0, 2.0);
    for (i64 rev = 1; rev <= 9997; ++rev) {
        bool sampled = false;
        for (i64 near = rev; near < rev + 4; ++near) {
            sampled = sampled || m_log.Has("Checked rec rev " + std::to_string(near) +
                                           " at offset " + std::to_string(1032 + 24 * near));
        }
        ASSERT_TRUE(sampled) << rev;
        rev += 500;
    }
}

TEST_F(IndexSampling, FailsAtADamagedEntryThatIsSampled) {
    MakeFile(6000);
    Entry(3).rev += 1;
    EXPECT_EQ(Test(), RC_NOT_FOUND);
    EXPECT_EQ(m_log.CodeOf(FailureAt(1128)), RC_NOT_FOUND);
    EXPECT_EQ(Samples(), 2U);
}

TEST_F(IndexSampling, PassesADamagedEntryThatIsNotSampled) {
    MakeFile(6000);
    Entry(2).rev += 1;
    EXPECT_EQ(Test(), RC_OK);
}

TEST_F(IndexSampling, AlwaysLooksAtTheFirstAndTheLastEntry) {
    MakeFile(5999);
    Entry(5998).rev += 1;
    EXPECT_EQ(Test(), RC_NOT_FOUND);
    Entry(0).rev += 1;
    EXPECT_EQ(Test(), RC_NOT_FOUND);
    EXPECT_TRUE(m_log.Has(FailureAt(1056)));
}

TEST_F(IndexSampling, FailsWhereNoRecordLies) {
    MakeFile(5);
    for (const i64 offset : {1024, 1057, 1055, 1176, 1176 + 31, 5000, -1}) {
        Entry(2).offset = offset;
        EXPECT_EQ(Test(), RC_NOT_FOUND) << offset;
        EXPECT_EQ(m_log.CodeOf(FailureAt(offset)), RC_NOT_FOUND) << m_log;
    }
}

TEST_F(IndexSampling, FailsWhenTheSystemCannotReadOrSeek) {
    MakeFile(5);
    FailRead(3);
    EXPECT_EQ(Test(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf(FailureAt(1104)), RC_SYSTEM_ERROR) << m_log;
    FailSeek(1);
    EXPECT_EQ(Test(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf(FailureAt(1056)), RC_SYSTEM_ERROR) << m_log;
}

TEST_F(IndexSampling, FailsWhenTheReadIsShort) {
    MakeFile(5);
    ShortRead(3, 10);
    EXPECT_EQ(Test(), RC_SHORT_READ);
    EXPECT_EQ(m_log.CodeOf(FailureAt(1104)), RC_SHORT_READ) << m_log;
}

TEST_F(IndexSampling, ReportsItsCountersAtItsEnd) {
    MakeFile(5);
    SetPerformanceFrequency(1'000'000);
    SetPerformanceCounter(1);
    EXPECT_EQ(Test(), RC_OK);
    EXPECT_EQ(m_log.Messages().back().module, "***TP***");
    EXPECT_TRUE(m_log.Has("IndexTest-Total: 0.00 mcs  IndexTest-Rec: 0.00 mcs (5 x 0.00 mcs)  "))
        << m_log;
    Entry(0).rev = 9;
    m_log.Clear();
    EXPECT_EQ(Test(), RC_NOT_FOUND);
    EXPECT_EQ(m_log.CountContaining("IndexTest-Total"), 1U);
}

}  // namespace
}  // namespace k9erepl::test
