// Enumeration from the file: ranges, commit blocks, stopping, large records.
#include <limits>

#include "solid/solid_fixture.h"

namespace k9erepl::test {
namespace {

constexpr i64 kNoEnd = std::numeric_limits<i64>::max();

class EnumFile : public SolidTest {
  protected:
    void OpenScanned(const FileBuilder& file, const std::string& settings = "") {
        Open(file, settings);
        ASSERT_EQ(Scan(), RC_OK);
        m_log.Clear();
    }
    static std::string Large(i64 rev, i64 offset, u32 size) {
        return "record " + std::to_string(rev) + " at " + std::to_string(offset) + ": " +
               std::to_string(size) + " pattern bytes";
    }

    const Items m_all = {"record 1 at 1056: one", "record 2 at 1083: two",
                         "record 3 at 1142: three"};
};

TEST_F(EnumFile, HandsOutTheRecordsOfTheRange) {
    OpenScanned(TwoTransactions());
    EXPECT_EQ(Enumerated(0, kNoEnd), m_all);
    EXPECT_EQ(Enumerated(1, 3), m_all);
    EXPECT_EQ(Enumerated(2, 2), Items{m_all[1]});
    EXPECT_EQ(Enumerated(2, 3), (Items{m_all[1], m_all[2]}));
    EXPECT_EQ(Enumerated(3, 3), Items{m_all[2]});
    EXPECT_EQ(Enumerated(4, kNoEnd), Items{});
    EXPECT_EQ(Enumerated(2, 1), Items{});
    EXPECT_EQ(Enumerated(std::numeric_limits<i64>::min(), kNoEnd), m_all);
}

TEST_F(EnumFile, SaysExitEnumOnlyAtTheEndOfTheData) {
    OpenScanned(TwoTransactions());
    Enumerated(1, 3);
    EXPECT_EQ(m_log.Texts(), Texts{"Exit Enum"});
    m_log.Clear();
    Enumerated(1, 2);
    EXPECT_EQ(m_log.Texts(), Texts{});
}

TEST_F(EnumFile, VisitsCommitBlocksWhenAsked) {
    OpenScanned(TwoTransactions());
    EXPECT_EQ(Enumerate({.fromRev = 2, .toRev = 3, .alsoCommits = true}), RC_OK);
    EXPECT_EQ(m_items,
              (Items{"commit at 1024", m_all[1], "commit at 1110", m_all[2], "commit at 1171"}));
}

TEST_F(EnumFile, BeginsAtTheStartOffset) {
    OpenScanned(TwoTransactions());
    EXPECT_EQ(Enumerate({.fromRev = 1, .toRev = 3, .startOffset = 1083}), RC_OK);
    EXPECT_EQ(m_items, (Items{m_all[1], m_all[2]}));
    EXPECT_EQ(Enumerate({.fromRev = 1, .toRev = 3, .alsoCommits = true, .startOffset = 1171}),
              RC_OK);
    EXPECT_EQ(m_items, Items{"commit at 1171"});
}

TEST_F(EnumFile, EndsAtTheWritePosition) {
    OpenScanned(TwoTransactions().Record(4, "never committed"));
    EXPECT_EQ(Enumerated(0, kNoEnd), m_all);
    EXPECT_EQ(Enumerate({.toRev = kNoEnd, .startOffset = kTwoTransactionsEnd}), RC_OK);
    EXPECT_EQ(m_items, Items{});
    EXPECT_EQ(Enumerate({.toRev = kNoEnd, .startOffset = 1'000'000}), RC_OK);
    EXPECT_EQ(m_items, Items{});
}

TEST_F(EnumFile, SeesWhatWasWrittenSince) {
    OpenScanned(TwoTransactions());
    Enumerated(1, 3);
    WriteTransaction(4, "four");
    EXPECT_EQ(Enumerated(3, 4), (Items{m_all[2], "record 4 at 1203: four"}));
}

TEST_F(EnumFile, SeesNothingOfWhatWasRolledBack) {
    OpenScanned(TwoTransactions());
    ASSERT_EQ(m_solid.BeginTransaction(), RC_OK);
    WriteRecord(4, "four");
    EXPECT_EQ(Enumerated(4, 4), Items{"record 4 at 1203: four"});
    ASSERT_EQ(m_solid.RollbackWrites(), RC_OK);
    EXPECT_EQ(Enumerated(4, 4), Items{});
    WriteRecord(4, "FOUR");
    EXPECT_EQ(Enumerated(4, 4), Items{"record 4 at 1203: FOUR"});
}

TEST_F(EnumFile, StopsWithTheVisitorsResult) {
    OpenScanned(TwoTransactions());
    AnswerAt(2, RC_ENUM_STOP);
    EXPECT_EQ(EnumerateRevs(1, 3), RC_ENUM_STOP);
    EXPECT_FALSE(m_completed);
    EXPECT_EQ(m_items, (Items{m_all[0], m_all[1]}));
    EXPECT_FALSE(m_log.Has("Exit Enum"));
}

TEST_F(EnumFile, StopsWithTheVisitorsResultAtACommitBlock) {
    OpenScanned(TwoTransactions());
    AnswerAtCommit(2, 99);
    EXPECT_EQ(Enumerate({.fromRev = 1, .toRev = 3, .alsoCommits = true}), 99U);
    EXPECT_FALSE(m_completed);
    EXPECT_EQ(m_items.back(), "commit at 1110");
}

TEST_F(EnumFile, CompletedIsSetAnewByEveryCall) {
    OpenScanned(TwoTransactions());
    AnswerAt(1, 5);
    EXPECT_EQ(EnumerateRevs(1, 3), 5U);
    EXPECT_FALSE(m_completed);
    EXPECT_EQ(Enumerated(1, 3), m_all);
}

TEST_F(EnumFile, ReadsSmallFilesOnce) {
    OpenScanned(TwoTransactions());
    Enumerated(1, 3);
    const u32 reads = CallCount(SystemCall::kRead);
    const u32 seeks = CallCount(SystemCall::kSeek);
    Enumerated(2, 3);
    Enumerated(1, 1);
    EXPECT_EQ(CallCount(SystemCall::kRead), reads);
    EXPECT_EQ(CallCount(SystemCall::kSeek), seeks);
}

TEST_F(EnumFile, CrossesTheReadBuffersBorders) {
    FileBuilder file;
    file.NewFile();
    Items expected;
    for (i64 rev = 1; rev <= 90; ++rev) {
        expected.push_back(Large(rev, file.Size(), 100'003));
        file.LargeRecord(rev, 100'003);
    }
    OpenScanned(file.Commit(0, 90), "read_buffers_count=1");
    EXPECT_EQ(Enumerated(1, 90), expected);
}

TEST_F(EnumFile, ReadsARecordOverTwoMebibytesByItself) {
    constexpr u32 kSize = ReadCacheManager::kBufferSize - kRecordHeadSize + 1;
    FileBuilder file;
    OpenScanned(file.NewFile().Record(1, "one").LargeRecord(2, kSize).Record(3).Commit(0, 3));
    const i64 third = 1083 + kSize + kRecordHeadSize;
    EXPECT_EQ(Enumerated(1, 3), (Items{m_all[0], Large(2, 1083, kSize),
                                       "record 3 at " + std::to_string(third) + ": "}));
}

TEST_F(EnumFile, ReadsARecordOfExactlyTwoMebibytesThroughTheCache) {
    constexpr u32 kSize = ReadCacheManager::kBufferSize - kRecordHeadSize;
    OpenScanned(FileBuilder().NewFile().Record(1, "one").LargeRecord(2, kSize).Commit(0, 2));
    const u32 allocations = CallCount(SystemCall::kAlloc);
    EXPECT_EQ(Enumerated(2, 2), Items{Large(2, 1083, kSize)});
    EXPECT_EQ(CallCount(SystemCall::kAlloc), allocations);
}

TEST_F(EnumFile, ReadsTheLargestRecords) {
    constexpr u32 kSize = FileScan::kBufferSize - kRecordHeadSize;
    OpenScanned(FileBuilder().NewFile().LargeRecord(1, kSize).LargeRecord(2, kSize).Commit(0, 2));
    EXPECT_EQ(Enumerated(1, 2),
              (Items{Large(1, 1056, kSize), Large(2, 1056 + FileScan::kBufferSize, kSize)}));
}

TEST_F(EnumFile, DoesNotReadTheLargeRecordsThatItPassesOver) {
    constexpr u32 kSize = 9'000'000;
    FileBuilder file;
    OpenScanned(file.NewFile().LargeRecord(1, kSize).Record(2, "two").Commit(0, 2));
    FailAlloc(1, kSize);
    EXPECT_EQ(Enumerated(2, 2), Items{"record 2 at 9001080: two"});
}

}  // namespace
}  // namespace k9erepl::test
