// The load scan: what it accepts, where it stops, what it says and what it leaves; hostile sizes
// and items at the border of the buffer; a callback or the system that ends it; a scan from an
// offset that the index file suggests.
#include <limits>

#include "solid/file_scan.h"
#include "solid/solid_fixture.h"

namespace k9erepl::test {
namespace {

class ScanRules : public SolidTest {
  protected:
    static TCommitBlock Linked(const FileBuilder& file, i64 clearRev, i64 commitRev) {
        TCommitBlock block = NewCommitBlock(99, commitRev);
        block.prevSequence = file.LastSequence();
        block.clearRev = clearRev;
        return block;
    }
    // The two transactions, the records, and a commit block whose link is wrong in these bits.
    static FileBuilder WithCommit(FileBuilder file, i64 clearRev, i64 commitRev, u32 wrong = 0) {
        TCommitBlock block = Linked(file, clearRev, commitRev);
        block.prevSequence ^= wrong;
        return file.RawCommit(block);
    }
    static std::string WrongSize(u32 size, u32 dataSize) {
        return "Found rec with size " + std::to_string(size) + ", but data size " +
               std::to_string(dataSize) + " at offset 1203";
    }
    static std::string TooShort(i64 bytes) {
        return "Couldn't read " + std::to_string(bytes) + " bytes at once";
    }
    // A scan that ends behind the two transactions and `itemsBehind` with this message and the
    // summary; what is written next comes behind the two transactions.
    void ExpectStop(const FileBuilder& file, const std::string& message,
                    const Items& itemsBehind = {}) {
        SCOPED_TRACE(message);
        m_solid.Close();
        Open(file);
        Items expected = TwoTransactionsItems();
        expected.insert(expected.end(), itemsBehind.begin(), itemsBehind.end());
        EXPECT_EQ(Scanned(), expected);
        const bool usual = message.starts_with("Loading stopped");
        EXPECT_TRUE(m_log.Has(usual ? K9SYS_LOG_INFO : K9SYS_LOG_WARNING, message)) << m_log;
        EXPECT_EQ(m_log.Messages().size(), 2U) << m_log;
        EXPECT_EQ(FlushedRev(), 3);
        EXPECT_EQ(WriteTransaction(4, "next"), kTwoTransactionsEnd);
        EXPECT_EQ(ItemsOfFile().back(), "commit 0 4");
    }
};

TEST_F(ScanRules, ANewFileStopsAtTheZerosBehindItsFirstCommitBlock) {
    Open(FileBuilder().NewFile().Zeros(8));
    EXPECT_EQ(Scanned(), Items{"commit 0 0"});
    EXPECT_EQ(m_log.Texts(K9SYS_LOG_INFO),
              (Texts{"Loading stopped due to wrong signature (0x00000000) at offset 1056",
                     "Min rev: 0, max rev: 0, valid commit offset 1024, prevRecRev 0"}));
    EXPECT_EQ(m_log.Messages().size(), 2U) << m_log;
    EXPECT_EQ(FlushedRev(), 0);
    EXPECT_EQ(WriteTransaction(1, "one"), 1056);
}

TEST_F(ScanRules, AFileThatDoesNotBeginWithACommitBlockIsCorrupt) {
    const std::string recordFirst = "Found rec, but commit expected at offset 1024";
    const std::string notFound = "First commit block is not found";
    const std::pair<FileBuilder, Texts> files[] = {
        {FileBuilder().Header().Record(1, "one").Commit(0, 1), {recordFirst}},
        {FileBuilder().Header(), {"Couldn't read 4 bytes at once", notFound}},
        {FileBuilder().Header().Zeros(100),
         {"Loading stopped due to wrong signature (0x00000000) at offset 1024", notFound}}};
    for (const auto& [file, texts] : files) {
        Open(file);
        for (const i64 start : {0, 1024, 1056}) {
            m_log.Clear();
            EXPECT_EQ(ScanFrom(start), RC_FILE_CORRUPT);
            EXPECT_EQ(m_log.Texts(), texts);
            EXPECT_EQ(m_log.CodeOf(texts.back()), RC_FILE_CORRUPT);
            EXPECT_TRUE(m_items.empty());
        }
        m_solid.Close();
    }
}

TEST_F(ScanRules, WhatMayNotFollowStopsIt) {
    const auto two = [] { return TwoTransactions(); };
    const Items seven = {"record 7 at 1203: seven"};
    ExpectStop(two(), TooShort(4));
    ExpectStop(two().Zeros(8),
               "Loading stopped due to wrong signature (0x00000000) at offset 1203");
    ExpectStop(two().RawWord(0x7B3A2D2B),
               "Loading stopped due to wrong signature (0x7B3A2D2B) at offset 1203");
    ExpectStop(two().Record(2, "late"),
               "Found rec with rev (2) less than lastCommitted at offset 1203");
    ExpectStop(two().Record(3, "again"),
               "Found rec with rev (3) greater than prev (3) at offset 1203");
    ExpectStop(two().Record(7, "seven").Record(7, "again"),
               "Found rec with rev (7) greater than prev (7) at offset 1232", seven);
    ExpectStop(two().Record(7, "seven").Record(5, "five"),
               "Found rec with rev (5) greater than prev (7) at offset 1232", seven);
    ExpectStop(WithCommit(two().Record(7, "seven"), 0, 7, 1),
               "Commit block consistency sequence is broken at offset 1232", seven);
    ExpectStop(WithCommit(two(), -1, -1, 1),
               "Commit block consistency sequence is broken at offset 1203");
    ExpectStop(WithCommit(two().Record(7, "seven"), 0, 6),
               "Found commit block at offset 1232 with commitRev (6) less than recRev (7)", seven);
}

TEST_F(ScanRules, SizesThatCannotBeStopIt) {
    const struct {
        u32 size;
        u32 dataSize;
    } claims[] = {{0, 0},  {7, 0},  {8, 0},           {23, 0},
                  {24, 5}, {30, 5}, {0, 0xFFFFFFE8U}, {8, 0xFFFFFFF0U}};
    for (const auto& [size, dataSize] : claims) {
        ExpectStop(TwoTransactions().HeadClaiming(4, size, dataSize).Zeros(100),
                   WrongSize(size, dataSize));
    }
    ExpectStop(TwoTransactions().HeadClaiming(4, 0xFFFFFFFF, 0xFFFFFFE7).Zeros(100),
               TooShort(4294967295));
}

TEST_F(ScanRules, WhatRunsPastTheFileStopsIt) {
    const auto two = [] { return TwoTransactions(); };
    ExpectStop(two().HeadClaiming(4, 24 + 9, 9).Fill(8, 'x'), TooShort(33));
    ExpectStop(two().HeadClaiming(4, 24, 0).CutTo(kTwoTransactionsEnd + 23), TooShort(24));
    ExpectStop(two().HeadClaiming(4, 7, 0).CutTo(kTwoTransactionsEnd + 10), TooShort(24));
    ExpectStop(two().RawWord(kRecordSignature).Zeros(3), TooShort(8));
    ExpectStop(two().Commit(0, 3).CutTo(kTwoTransactionsEnd + 31), TooShort(32));
    ExpectStop(two().RawWord(kRecordSignature).CutTo(kTwoTransactionsEnd + 3), TooShort(4));
}

TEST_F(ScanRules, AClearRevisionThatFallsStopsIt) {
    FileBuilder file = FileBuilder().NewFile().Record(5, "five").Commit(3, 5);
    file.RawCommit(Linked(file, 2, 5));
    Open(file);
    EXPECT_EQ(Scanned(), (Items{"commit 0 0", "record 5 at 1056: five", "commit 3 5"}));
    EXPECT_EQ(m_log.Texts(K9SYS_LOG_WARNING),
              Texts{"Found commit block at offset 1116 with clearRev (2) less than expected"});
    EXPECT_TRUE(m_log.Has("Min rev: 3, max rev: 5, valid commit offset 1084, prevRecRev 5"))
        << m_log;
}

TEST_F(ScanRules, TheFirstCommitBlockCountsWithTheLargerOfItsRevisions) {
    Open(FileBuilder().Header().Commit(50, 40).Record(49, "below"));
    EXPECT_EQ(Scanned(), Items{"commit 50 40"});
    EXPECT_TRUE(m_log.Has("Found rec with rev (49) less than lastCommitted at offset 1056"));
    EXPECT_TRUE(m_log.Has("Min rev: 50, max rev: 50, valid commit offset 1024, prevRecRev 0"));
    EXPECT_EQ(FlushedRev(), 50);
}

TEST_F(ScanRules, ALaterCommitBlockCountsWithItsCommitRevision) {
    Open(FileBuilder().NewFile().Record(4, "four").Commit(4, 4).Commit(9, 4).Record(5, "five"));
    EXPECT_EQ(Scanned(), (Items{"commit 0 0", "record 4 at 1056: four", "commit 4 4", "commit 9 4",
                                "record 5 at 1148: five"}));
    EXPECT_EQ(FlushedRev(), 4);
}

TEST_F(ScanRules, LoadedSequenceAndClearRevisionGoIntoTheNextCommitBlock) {
    FileBuilder file = FileBuilder().NewFile().Record(5, "five").Commit(3, 5);
    Open(file);
    ASSERT_EQ(Scan(), RC_OK);
    SetTimeStampCounter(0xABCD);
    EXPECT_EQ(WriteTransaction(6, "six"), file.Size());
    TCommitBlock expected = Linked(file, 3, 6);
    expected.sequence = 0xABCD;
    EXPECT_EQ(WrittenBytes(), file.Record(6, "six").RawCommit(expected).Bytes());
}

class ScanSizes : public SolidTest {
  protected:
    static constexpr u32 kBuffer = FileScan::kBufferSize;
    static constexpr u32 kLargestData = kBuffer - kRecordHeadSize;

    static std::string Large(i64 rev, i64 offset, u32 size) {
        return "record " + std::to_string(rev) + " at " + std::to_string(offset) + ": " +
               std::to_string(size) + " pattern bytes";
    }
};

TEST_F(ScanSizes, ARecordMayBeAsLargeAsTheBufferAndNoByteLarger) {
    Open(FileBuilder().NewFile().LargeRecord(1, kLargestData).Commit(0, 1));
    EXPECT_EQ(Scanned(), (Items{"commit 0 0", Large(1, 1056, kLargestData), "commit 0 1"}));
    m_solid.Close();
    Open(FileBuilder().NewFile().LargeRecord(1, kLargestData + 1).Commit(0, 1).Zeros(8));
    EXPECT_EQ(Scanned(), Items{"commit 0 0"});
    EXPECT_EQ(m_log.Texts(K9SYS_LOG_WARNING), Texts{"Couldn't read 10485761 bytes at once"});
    EXPECT_TRUE(m_log.Has("Min rev: 0, max rev: 0, valid commit offset 1024, prevRecRev 0"));
}

TEST_F(ScanSizes, TheEndOfAReadIsCrossedWhereverItFalls) {
    // So many bytes of record 2, or of the commit block behind it, are in the first read.
    for (const u32 part : {0, 1, 4, 7, 8, 23, 24, 25, 323, 324, 325, 327, 328, 355, 356, 357}) {
        const u32 firstData = FileScan::kReadSize - kCommitBlockSize - kRecordHeadSize - part;
        FileBuilder file;
        file.NewFile().LargeRecord(1, firstData).LargeRecord(2, 300).Commit(0, 2).Record(3, "end");
        const i64 second = kFirstItemOffset + kRecordHeadSize + firstData;
        Open(file.Commit(0, 3).Zeros(8));
        const u32 reads = CallCount(SystemCall::kRead);
        EXPECT_EQ(
            Scanned(),
            (Items{"commit 0 0", Large(1, 1056, firstData), Large(2, second, 300), "commit 0 2",
                   "record 3 at " + std::to_string(second + 324 + 32) + ": end", "commit 0 3"}))
            << part;
        EXPECT_EQ(CallCount(SystemCall::kRead), reads + 2);
        m_solid.Close();
    }
}

TEST_F(ScanSizes, LargeItemsAreReadEightAtATime) {
    FileBuilder file;
    file.NewFile();
    for (i64 rev = 1; rev <= 30; ++rev) {
        file.LargeRecord(rev, 1'000'000);
    }
    Open(file.Commit(0, 30));
    const u32 readsBefore = CallCount(SystemCall::kRead);
    const u32 seeksBefore = CallCount(SystemCall::kSeek);
    const Items items = Scanned();
    ASSERT_EQ(items.size(), 32U);
    EXPECT_EQ(items[30], "record 30 at 29001752: 1000000 pattern bytes");
    // The first read does not reach record 1's end; the others begin where the one before ended.
    EXPECT_EQ(CallCount(SystemCall::kRead) - readsBefore, 5U);
    EXPECT_EQ(CallCount(SystemCall::kSeek) - seeksBefore, 2U);  // record 1, the write position
}

TEST_F(ScanSizes, SmallItemsAreReadInPieces) {
    constexpr i64 kRecords = 3'000;
    FileBuilder file;
    file.NewFile();
    for (i64 rev = 1; rev <= kRecords; ++rev) {
        file.LargeRecord(rev, 1'000);
    }
    Open(file.Commit(0, kRecords));
    const u32 readsBefore = CallCount(SystemCall::kRead);
    ASSERT_EQ(Scanned().size(), kRecords + 2U);
    EXPECT_EQ(CallCount(SystemCall::kRead) - readsBefore,
              (file.Size() - kFirstCommitOffset) / FileScan::kReadSize + 1);
}

class ScanFailure : public SolidTest {
  protected:
    ScanFailure() { Open(TwoTransactions().Zeros(8)); }

    void ExpectFailure(u32 rc, const Texts& errors) {
        EXPECT_EQ(Scan(), rc);
        EXPECT_EQ(m_log.Texts(), errors);
        ExpectWorksAgain();
    }
    void ExpectWorksAgain() {
        EXPECT_EQ(FlushedRev(), 0);
        EXPECT_EQ(Scanned(), TwoTransactionsItems());
        EXPECT_EQ(WriteTransaction(4, "four"), kTwoTransactionsEnd);
    }
};

TEST_F(ScanFailure, OfACallbackIsReturned) {
    const struct {
        u32 nthRecord;
        u32 nthCommit;
        std::size_t items;
    } answers[] = {{2, 0, 3}, {0, 1, 1}, {0, 2, 4}};
    for (const auto& [nthRecord, nthCommit, items] : answers) {
        m_solid.Close();
        Open(TwoTransactions().Zeros(8));
        nthRecord != 0 ? AnswerAt(nthRecord, 4711) : AnswerAtCommit(nthCommit, 4711);
        EXPECT_EQ(Scan(), 4711U);
        EXPECT_EQ(m_log.Texts(), Texts{});
        EXPECT_EQ(m_items.size(), items);
        ExpectWorksAgain();
    }
}

TEST_F(ScanFailure, OfTheBuffersMemoryOrTheFirstReadIsReturned) {
    FailAlloc(1, FileScan::kBufferSize);
    EXPECT_EQ(Scan(), RC_NO_MEMORY);
    EXPECT_EQ(m_log.Texts(), Texts{});
    FailRead(1);
    ExpectFailure(RC_SYSTEM_ERROR, {"Failed to read block;" +
                                    SysErr(SystemErrorKind::kInputOutput) + ",offset 1024"});
    FailSeek(1);  // the file pointer stands elsewhere now
    EXPECT_EQ(Scan(), RC_SYSTEM_ERROR);
    EXPECT_TRUE(m_log.Has("Cannot seek to start enum recs;offset 1024, " +
                          SysErr(SystemErrorKind::kInputOutput)))
        << m_log;
}

TEST_F(ScanFailure, OfTheSeekToTheWritePosition) {
    FailSeek(1);
    EXPECT_EQ(Scan(), RC_SYSTEM_ERROR);
    const std::string text =
        "Cannot seek to write pos;offset 1203, " + SysErr(SystemErrorKind::kInputOutput);
    EXPECT_EQ(m_log.CodeOf(text), RC_SYSTEM_ERROR) << m_log;
    ExpectWorksAgain();
}

TEST_F(ScanFailure, OfARefillIsReturned) {
    m_solid.Close();
    Open(FileBuilder().NewFile().LargeRecord(1, 9'000'000).LargeRecord(2, 9'000'000).Commit(0, 2));
    FailRead(3);
    EXPECT_EQ(Scan(), RC_SYSTEM_ERROR);
    EXPECT_TRUE(m_log.Has("Failed to read block;" + SysErr(SystemErrorKind::kInputOutput) +
                          ",offset 9001080"))
        << m_log;
    ShortRead(2, 5'000'000);
    EXPECT_EQ(Scan(), RC_SHORT_READ);
    EXPECT_EQ(Scanned().size(), 4U);
}

TEST_F(ScanFailure, AReadThatEndsBeforeTheFileDoesIsNoEndOfTheData) {
    ShortRead(1, 3);
    EXPECT_EQ(Scan(), RC_SHORT_READ);
    const std::string text = "Reading ended before the end of the file;offset 1027,file size 1211";
    EXPECT_EQ(m_log.Texts(), Texts{text});
    EXPECT_EQ(m_log.CodeOf(text), RC_SHORT_READ);
    EXPECT_TRUE(m_items.empty());
    ExpectWorksAgain();
}

TEST_F(ScanFailure, OfTheLookAtTheSizeWhenAReadEndedEarly) {
    ShortRead(1, 3);
    FailFileSize(1);
    EXPECT_EQ(Scan(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.Texts(),
              Texts{"Cannot get file size;" + SysErr(SystemErrorKind::kInputOutput)});
    ExpectWorksAgain();
}

TEST_F(ScanFailure, AFileThatWasCutMeanwhileEndsTheDataThere) {
    ResizeFile(Path(), 1150);
    EXPECT_EQ(Scanned().back(), "commit 0 2");
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_WARNING, "Couldn't read 29 bytes at once")) << m_log;
    EXPECT_EQ(FlushedRev(), 2);
}

using ScanHint = SolidTest;

TEST_F(ScanHint, BeginsWithTheItemAtTheHint) {
    Open(TwoTransactions().Zeros(8));
    const Items all = TwoTransactionsItems();
    for (const i64 start : {0, 1024, 1056}) {
        EXPECT_EQ(ScannedFrom(start), all) << start;
    }
    EXPECT_EQ(ScannedFrom(1083), Items(all.begin() + 2, all.end())) << "inside a transaction";
    EXPECT_EQ(ScannedFrom(1110), Items(all.begin() + 3, all.end())) << "a commit block";
    m_log.Clear();
    EXPECT_EQ(ScannedFrom(1142), Items(all.begin() + 4, all.end()));
    EXPECT_TRUE(m_log.Has("Min rev: 0, max rev: 3, valid commit offset 1171, prevRecRev 3"));
    EXPECT_EQ(FlushedRev(), 3);
    EXPECT_EQ(ScanFrom(1057), RC_FILE_CORRUPT);
    EXPECT_EQ(FlushedRev(), 3) << "a failed scan leaves it";
    EXPECT_EQ(WriteTransaction(4, "four"), kTwoTransactionsEnd);
    EXPECT_EQ(ItemsOfFile().back(), "commit 0 4");
}

TEST_F(ScanHint, ThatMeetsNoCommitBlockIsRefused) {
    const struct {
        i64 cutTo;
        i64 hint;
        const char* end;
        Items items;
    } hints[] = {
        {1171, 1142, "Couldn't read 4 bytes at once", {"record 3 at 1142: three"}},
        {1203, 1057, "Loading stopped due to wrong signature (0x1B7B3A2D) at offset 1057", {}},
        {1203, 1'000'000, "Couldn't read 4 bytes at once", {}}};
    for (const auto& each : hints) {
        Open(TwoTransactions().CutTo(each.cutTo));
        EXPECT_EQ(ScanFrom(each.hint), RC_FILE_CORRUPT);
        EXPECT_EQ(m_log.Texts(),
                  (Texts{each.end, "First commit block is not found", "Try to delete index file"}));
        EXPECT_EQ(m_log.CodeOf("First commit block is not found"), RC_FILE_CORRUPT);
        EXPECT_TRUE(m_log.Has(K9SYS_LOG_WARNING, "Try to delete index file"));
        EXPECT_EQ(m_items, each.items);
        m_solid.Close();
    }
    Open(TwoTransactions());
    const u32 rc = ScanFrom(std::numeric_limits<i64>::max());
    EXPECT_TRUE(rc == RC_FILE_CORRUPT || rc == RC_SYSTEM_ERROR) << rc;
}

}  // namespace
}  // namespace k9erepl::test
