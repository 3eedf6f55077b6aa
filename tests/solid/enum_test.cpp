// Enumeration from the file: ranges, commit blocks, stopping, large records; data or a system that
// fails; visitors that use the storage file while the enumeration that called them goes on.
#include <functional>
#include <limits>
#include <utility>
#include <vector>

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
    EXPECT_EQ(Enumerated(1, 2), (Items{m_all[0], m_all[1]}));
    EXPECT_EQ(m_log.Texts(), Texts{});
    EXPECT_EQ(Enumerated(1, 3), m_all);
    EXPECT_EQ(m_log.Texts(), Texts{"Exit Enum"}) << "only at the end of the data";
    EXPECT_EQ(Enumerated(0, kNoEnd), m_all);
    EXPECT_EQ(Enumerated(2, 2), Items{m_all[1]});
    EXPECT_EQ(Enumerated(2, 3), (Items{m_all[1], m_all[2]}));
    EXPECT_EQ(Enumerated(3, 3), Items{m_all[2]});
    EXPECT_EQ(Enumerated(4, kNoEnd), Items{});
    EXPECT_EQ(Enumerated(2, 1), Items{});
    EXPECT_EQ(Enumerated(std::numeric_limits<i64>::min(), kNoEnd), m_all);
}

TEST_F(EnumFile, BeginsAtTheStartOffsetEndsAtTheWritePositionAndVisitsCommitBlocksWhenAsked) {
    OpenScanned(TwoTransactions().Record(4, "never committed"));
    EXPECT_EQ(Enumerated(0, kNoEnd), m_all);
    for (const i64 offset : {kTwoTransactionsEnd, i64{1'000'000}}) {
        EXPECT_EQ(Enumerate({.toRev = kNoEnd, .startOffset = offset}), RC_OK);
        EXPECT_EQ(m_items, Items{});
    }
    EXPECT_EQ(Enumerate({.fromRev = 1, .toRev = 3, .startOffset = 1083}), RC_OK);
    EXPECT_EQ(m_items, (Items{m_all[1], m_all[2]}));
    EXPECT_EQ(Enumerate({.fromRev = 2, .toRev = 3, .alsoCommits = true}), RC_OK);
    EXPECT_EQ(m_items,
              (Items{"commit at 1024", m_all[1], "commit at 1110", m_all[2], "commit at 1171"}));
    EXPECT_EQ(Enumerate({.fromRev = 1, .toRev = 3, .alsoCommits = true, .startOffset = 1171}),
              RC_OK);
    EXPECT_EQ(m_items, Items{"commit at 1171"});
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
    AnswerAtCommit(2, 99);
    EXPECT_EQ(Enumerate({.fromRev = 1, .toRev = 3, .alsoCommits = true}), 99U);
    EXPECT_FALSE(m_completed);
    EXPECT_EQ(m_items.back(), "commit at 1110");
    EXPECT_EQ(Enumerated(1, 3), m_all) << "which sets the flag anew";
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

TEST_F(EnumFile, ReadsARecordOverTwoMebibytesByItself) {
    for (const u32 more : {0U, 1U}) {
        const u32 size = ReadCacheManager::kBufferSize - kRecordHeadSize + more;
        m_solid.Close();
        OpenScanned(
            FileBuilder().NewFile().Record(1, "one").LargeRecord(2, size).Record(3).Commit(0, 3));
        const u32 allocations = CallCount(SystemCall::kAlloc);
        const i64 third = 1083 + size + kRecordHeadSize;
        EXPECT_EQ(Enumerated(1, 3), (Items{m_all[0], Large(2, 1083, size),
                                           "record 3 at " + std::to_string(third) + ": "}));
        EXPECT_EQ(CallCount(SystemCall::kAlloc), allocations + more);
    }
}

TEST_F(EnumFile, DoesNotReadTheLargeRecordsThatItPassesOver) {
    constexpr u32 kSize = 9'000'000;
    FileBuilder file;
    OpenScanned(file.NewFile().LargeRecord(1, kSize).Record(2, "two").Commit(0, 2));
    FailAlloc(1, kSize);
    EXPECT_EQ(Enumerated(2, 2), Items{"record 2 at 9001080: two"});
}

class EnumFailure : public SolidTest {
  protected:
    static constexpr u32 kLarge = 3'000'000;

    EnumFailure() { OpenScanned(TwoTransactions()); }

    void OpenScanned(const FileBuilder& file) {
        m_solid.Close();
        Open(file);
        ASSERT_EQ(Scan(), RC_OK);
        m_log.Clear();
    }
    // An enumeration of all revisions that ends with this code and message; the completed flag
    // tells the caller that it was not a visitor.
    void ExpectFailure(u32 rc, const std::string& message) {
        EXPECT_EQ(EnumerateRevs(1, 9), rc);
        EXPECT_TRUE(m_completed);
        EXPECT_EQ(m_log.Texts(), Texts{message});
        EXPECT_EQ(m_log.CodeOf(message), rc);
    }
    // Overwrites bytes of record 3, whose head is at 1142.
    void Damage(i64 at, u32 value) {
        PatchBytes(Path(), 1142 + at,
                   std::vector<u8>{static_cast<u8>(value), static_cast<u8>(value >> 8),
                                   static_cast<u8>(value >> 16), static_cast<u8>(value >> 24)});
    }
    void OpenLarge() { OpenScanned(FileBuilder().NewFile().LargeRecord(1, kLarge).Commit(0, 1)); }

    const std::string m_ioError = SysErr(SystemErrorKind::kInputOutput);
};

TEST_F(EnumFailure, ADamagedHeadIsBadData) {
    const struct {
        std::vector<std::pair<i64, u32>> damage;  // where in the head of record 3, which word
        std::string message;
    } heads[] = {
        {{{0, 0x00C0FFEE}}, "Wrong signature (0x00C0FFEE) found, offset 1142"},
        {{{8, 2}}, "Read rec with rev 2, but rev before it is 2, offset 1142"},
        {{{4, 24 + 38}, {20, 38}}, "Wrong rec size 62, data size 38, offset 1142"},
        {{{8, 4}}, "Read uncommitted rec with rev 4,last committed rev 3"},
    };
    for (const auto& head : heads) {
        OpenScanned(TwoTransactions());
        for (const auto& [at, value] : head.damage) {
            Damage(at, value);
        }
        ExpectFailure(RC_BAD_DATA, head.message);
        if (head.damage[0].second != 4) {
            EXPECT_EQ(m_items, (Items{"record 1 at 1056: one", "record 2 at 1083: two"}));
        }
    }
    for (const u32 size : {0U, 7U, 23U, 24U, 30U, 0xFFFFFFFFU}) {
        OpenScanned(TwoTransactions());
        Damage(4, size);
        ExpectFailure(RC_BAD_DATA,
                      "Wrong rec size " + std::to_string(size) + ", data size 5, offset 1142");
    }
}

TEST_F(EnumFailure, AStartInsideAnItemIsBadDataAndARecordUpToTheEndIsNone) {
    EXPECT_EQ(Enumerate({.toRev = 9, .startOffset = 1057}), RC_BAD_DATA);
    EXPECT_EQ(m_log.Texts(), Texts{"Wrong signature (0x1B7B3A2D) found, offset 1057"});
    Damage(4, 24 + 37);
    Damage(20, 37);
    EXPECT_EQ(EnumerateRevs(1, 9), RC_OK);
    EXPECT_EQ(m_items.size(), 3U);
}

// A revision above the range ends it if that can be believed.
TEST_F(EnumFailure, AHeadAboveTheRangeThatCannotBeBelievedIsBadData) {
    Damage(8, 10);
    ExpectFailure(RC_BAD_DATA, "Read uncommitted rec with rev 10,last committed rev 3");
    OpenScanned(TwoTransactions());
    Damage(4, 30);
    EXPECT_EQ(EnumerateRevs(1, 2), RC_BAD_DATA);
    EXPECT_EQ(m_log.Texts(), Texts{"Wrong rec size 30, data size 5, offset 1142"});
}

TEST_F(EnumFailure, ARecordAboveTheRangeBeforeAPlaceThatTheRangeReachesIsBadData) {
    EXPECT_EQ(Enumerate({.fromRev = 1, .toRev = 2, .reachesTo = 1142}), RC_OK);
    EXPECT_EQ(Enumerate({.fromRev = 1, .toRev = 2, .reachesTo = 1143}), RC_BAD_DATA);
    EXPECT_TRUE(m_completed);
    EXPECT_EQ(m_items.size(), 2U);
    EXPECT_EQ(
        m_log.CodeOf("Read rec with rev 3, but revs up to 2 reach to offset 1143, offset 1142"),
        RC_BAD_DATA)
        << m_log;
}

TEST_F(EnumFailure, ARecordAboveTheRangeWithALowerOneBehindItIsBadData) {
    OpenScanned(TwoTransactions().Record(4, "four").Record(5, "five").Commit(0, 5));
    Damage(8, 5);
    EXPECT_EQ(EnumerateRevs(1, 3), RC_BAD_DATA);
    EXPECT_EQ(m_log.Texts(), Texts{"Read rec with rev 4, but rev before it is 5, offset 1203"});
    EXPECT_EQ(m_items, (Items{"record 1 at 1056: one", "record 2 at 1083: two"}));
}

TEST_F(EnumFailure, AnItemThatWasCutIsCorrupt) {
    for (const auto& [size, bytes] :
         {std::pair{1143, 4}, {1142 + 23, 24}, {1170, 29}, {int{kTwoTransactionsEnd} - 1, 32}}) {
        OpenScanned(TwoTransactions());
        ResizeFile(Path(), size);
        ExpectFailure(RC_FILE_CORRUPT, "Couldn't read " + std::to_string(bytes) + " bytes at once");
    }
    OpenLarge();
    ResizeFile(Path(), 2'900'000);
    ExpectFailure(RC_FILE_CORRUPT, "Couldn't read 3000024 bytes at once");
}

TEST_F(EnumFailure, ACommitBlockThatRunsPastTheDataIsCorrupt) {
    Damage(0, kCommitSignature);
    PatchBytes(Path(), 1142 + 32, std::vector<u8>{0x7D, 0x2A, 0x2D, 0x3A});
    ExpectFailure(RC_FILE_CORRUPT, "Couldn't read 32 bytes at once");
}

TEST_F(EnumFailure, OfTheSeekOrTheReadIsReturned) {
    const std::string seek = "Cannot seek to start enum recs;offset ";
    const std::string read = "Failed to read block;" + m_ioError + ",offset ";
    FailSeek(1);
    ExpectFailure(RC_SYSTEM_ERROR, seek + "1024, " + m_ioError);
    m_log.Clear();
    FailRead(1);
    ExpectFailure(RC_SYSTEM_ERROR, read + "1024");
    EXPECT_EQ(Enumerated(3, 3), Items{"record 3 at 1142: three"});
    OpenLarge();
    FailSeek(2);
    ExpectFailure(RC_SYSTEM_ERROR, seek + "1056, " + m_ioError);
    OpenLarge();
    FailAlloc(1, kLarge);
    EXPECT_EQ(EnumerateRevs(1, 9), RC_NO_MEMORY);
    EXPECT_TRUE(m_completed);
    OpenLarge();
    FailRead(2);
    ExpectFailure(RC_SYSTEM_ERROR, read + "1056");
    EXPECT_EQ(Enumerated(1, 9).size(), 1U);
}

using Visitor = std::function<u32(i64 offset, const K9eReplRec* rec)>;

class EnumNested : public SolidTest {
  protected:
    // 60 records of 200 KB, several read buffers long, closed in tens.
    EnumNested() {
        FileBuilder file;
        file.NewFile();
        for (i64 rev = 1; rev <= kRecords; ++rev) {
            m_expected.push_back("record " + std::to_string(rev) + " at " +
                                 std::to_string(file.Size()) + ": 200000 pattern bytes");
            file.LargeRecord(rev, 200'000);
            if (rev % 10 == 0) {
                file.Commit(0, rev);
            }
        }
        Open(file, "read_buffers_count=1");
        EXPECT_EQ(Scan(), RC_OK);
        m_log.Clear();
    }

    u32 EnumerateWith(const Visitor& visitor, i64 fromRev = 1, i64 toRev = 1000) {
        bool completed = false;
        return m_solid.EnumFileRecs(
            {.fromRev = fromRev, .toRev = toRev},
            [](i64 offset, const K9eReplRec* rec, void* ctx) -> u32 {
                return (*static_cast<const Visitor*>(ctx))(offset, rec);
            },
            const_cast<Visitor*>(&visitor), &completed);
    }
    // The texts of a whole enumeration whose visitor does `work` before it looks at its record.
    Items TextsAfter(const std::function<void(const K9eReplRec&)>& work) {
        Items texts;
        EXPECT_EQ(EnumerateWith([&](i64 offset, const K9eReplRec* rec) {
                      work(*rec);
                      texts.push_back(RecordText(offset, *rec));
                      return RC_OK;
                  }),
                  RC_OK)
            << m_log;
        return texts;
    }

    static constexpr i64 kRecords = 60;
    Items m_expected;
};

TEST_F(EnumNested, ThreeLevelsKeepTheirPlaces) {
    u32 visits = 0;
    EXPECT_EQ(TextsAfter([&](const K9eReplRec& outer) {
                  if (outer.rev % 20 != 0) {
                      return;
                  }
                  EXPECT_EQ(TextsAfter([&](const K9eReplRec& inner) {
                                if (inner.rev % 30 == 0) {
                                    EXPECT_EQ(Enumerated(1, kRecords), m_expected);
                                    ++visits;
                                }
                            }),
                            m_expected);
              }),
              m_expected);
    EXPECT_EQ(visits, 6U);
}

TEST_F(EnumNested, AnEnumerationAfterANestedOneReusesItsBuffers) {
    TextsAfter([this](const K9eReplRec&) { Enumerated(1, 1); });
    const u32 allocations = CallCount(SystemCall::kAlloc);
    TextsAfter([this](const K9eReplRec&) { Enumerated(2, 2); });
    EXPECT_EQ(CallCount(SystemCall::kAlloc), allocations);
}

TEST_F(EnumNested, WithoutMemoryForItsBuffersFailsAlone) {
    EXPECT_EQ(TextsAfter([this](const K9eReplRec&) {
                  FailAlloc(1, ReadCacheManager::kBufferSize);
                  EXPECT_EQ(EnumerateRevs(1, 1), RC_NO_MEMORY);
              }),
              m_expected);
    EXPECT_EQ(Enumerated(1, 1), Items{m_expected[0]});
}

TEST_F(EnumNested, AVisitorMayWriteRollBackAndChangeTheHeader) {
    i64 written = kRecords;
    EXPECT_EQ(TextsAfter([&](const K9eReplRec& rec) {
                  WriteTransaction(++written, "more");
                  EXPECT_EQ(m_solid.BeginTransaction(), RC_OK);
                  WriteRecord(written + 1, "undone");
                  EXPECT_EQ(m_solid.RollbackWrites(), RC_OK);
                  EXPECT_EQ(m_solid.SetLifenum(static_cast<u32>(rec.rev)), RC_OK);
              }),
              m_expected);
    EXPECT_EQ(written, 2 * kRecords);
    EXPECT_EQ(FlushedRev(), 2 * kRecords);
    EXPECT_EQ(Enumerated(kRecords + 1, 1000).size(), 60U);
    u32 lifenum = 0;
    EXPECT_EQ(m_solid.GetLifenum(&lifenum), RC_OK);
    EXPECT_EQ(lifenum, 60U);
}

TEST_F(EnumNested, ReadsAnewWhatMayHaveChangedDuringAVisit) {
    constexpr i64 kDataOfRecord2 = kFirstItemOffset + 200'024 + kRecordHeadSize;
    Items texts = TextsAfter([this](const K9eReplRec& rec) {
        if (rec.rev == 1) {
            PatchBytes(Path(), kDataOfRecord2, std::vector<u8>(9, 0xEE));
            EXPECT_EQ(m_solid.Commit(), RC_OK);
        }
    });
    ASSERT_EQ(texts.size(), m_expected.size());
    EXPECT_EQ(texts[1], "record 2 at 201080: 200000 other bytes");
    m_expected[1] = texts[1];
    EXPECT_EQ(texts, m_expected);
}

TEST_F(EnumNested, NestedReadsSeeWhatHasChangedSince) {
    const auto nested = [this] {
        Items found;
        EnumerateWith(
            [&](i64, const K9eReplRec*) {
                found = Enumerated(1, 1);
                return RC_OK;
            },
            60, 60);
        return found;
    };
    EXPECT_EQ(nested(), Items{m_expected[0]});
    PatchBytes(Path(), kFirstItemOffset + kRecordHeadSize, std::vector<u8>(9, 0xEE));
    EXPECT_EQ(m_solid.Commit(), RC_OK);
    EXPECT_EQ(nested(), Items{"record 1 at 1056: 200000 other bytes"});
    Reopen();
    EXPECT_EQ(Scan(), RC_OK);
    EXPECT_EQ(nested(), Items{"record 1 at 1056: 200000 other bytes"});
}

}  // namespace
}  // namespace k9erepl::test
