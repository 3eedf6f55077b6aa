// Starting the file over: what stands at its beginning then, and that nothing behind it returns.
#include <algorithm>

#include "solid/solid_fixture.h"
#include "support/file_bytes.h"

namespace k9erepl::test {
namespace {

class TruncateFile : public SolidTest {
  protected:
    TruncateFile() { OpenScanned(""); }

    void OpenScanned(const std::string& settings) {
        m_solid.Close();
        Open(TwoTransactions(), settings);
        EXPECT_EQ(Scan(), RC_OK);
        m_log.Clear();
    }
    // The first 1064 bytes of a file that was started over.
    static FileBuilder Beginning(u32 sequence, i64 rev, u32 lifenum = 0, i64 clearOldRev = 0) {
        TCommitBlock block = NewCommitBlock(sequence, rev);
        block.prevSequence = TwoTransactions().LastSequence();
        block.clearRev = rev;
        return FileBuilder().Header(lifenum, clearOldRev).RawCommit(block).Zeros(8);
    }
    // That, and behind it what lay there before.
    static std::vector<u8> OverTwoTransactions(FileBuilder beginning) {
        const std::vector<u8> old = TwoTransactions().Bytes();
        return beginning.Raw(old.data() + kNewFileSize, old.size() - kNewFileSize).Bytes();
    }
    TCommitBlock CommitBlockAt(i64 offset) {
        return LoadUnaligned<TCommitBlock>(WrittenBytes().data() + offset);
    }
    bool AllZeroFrom(i64 offset) {
        const std::vector<u8> bytes = WrittenBytes();
        return std::all_of(At(bytes, offset), bytes.end(), [](u8 byte) { return byte == 0; });
    }
};

TEST_F(TruncateFile, WritesAFirstCommitBlockWithTheRevision) {
    SetTimeStampCounter(0x9'0000'0077, 1);
    EXPECT_EQ(m_solid.SetLifenum(9), RC_OK);
    u32 notices = 0;
    m_solid.SetWrittenRevisionCallback([](std::int64_t, void* ctx) { ++*static_cast<u32*>(ctx); },
                                       &notices);
    EXPECT_EQ(m_solid.TruncateToClearRev(3, 0, 0), RC_OK);
    EXPECT_EQ(notices, 0U);
    EXPECT_EQ(CallCount(SystemCall::kFlush), 1U) << "it is on the disk";
    EXPECT_EQ(LoggedTexts(), Texts{"File was truncated;clear rev 3"});
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "File was truncated;clear rev 3"));
    EXPECT_EQ(WrittenBytes(), OverTwoTransactions(Beginning(0x77, 3)));
    EXPECT_EQ(ItemsOfFile(), Items{"commit 3 3"});
}

TEST_F(TruncateFile, WritesTheGivenHeaderFields) {
    SetTimeStampCounter(0x77, 1);
    EXPECT_EQ(m_solid.SetLifenum(9), RC_OK);
    EXPECT_EQ(m_solid.TruncateToClearRev(3, 5, -6), RC_OK);
    EXPECT_EQ(WrittenBytes(), OverTwoTransactions(Beginning(0x77, 3, 5, -6)));
}

TEST_F(TruncateFile, ServesNothingAfterwards) {
    EXPECT_EQ(Enumerated(1, 9).size(), 3U);
    EXPECT_EQ(m_solid.TruncateToClearRev(3, 0, 0), RC_OK);
    EXPECT_EQ(Enumerated(1, 9), Items{});
    EXPECT_EQ(FlushedRev(), 0);
    EXPECT_EQ(m_solid.FileSize(), kNewFileSize);
}

TEST_F(TruncateFile, TheNextWriteBeginsTheFileAndCarriesTheRevision) {
    SetTimeStampCounter(0x77, 1);
    EXPECT_EQ(m_solid.TruncateToClearRev(3, 0, 0), RC_OK);
    EXPECT_EQ(WriteTransaction(4, "four"), kFirstItemOffset);
    const TCommitBlock next = CommitBlockAt(kFirstItemOffset + 28);
    EXPECT_EQ(u32{next.prevSequence}, 0x77U);
    EXPECT_EQ(i64{next.clearRev}, 3);
    EXPECT_EQ(ItemsOfFile(), (Items{"commit 3 3", "record 4 at 1056: four", "commit 3 4"}));
}

TEST_F(TruncateFile, ALoadTakesRecordsFromTheRevisionOn) {
    EXPECT_EQ(m_solid.BeginTransaction(), RC_OK);
    EXPECT_EQ(m_solid.TruncateToClearRev(5, 0, 0), RC_OK);
    EXPECT_EQ(m_solid.RollbackWrites(), RC_OK) << "the transaction is forgotten";
    EXPECT_EQ(m_solid.TruncateToClearRev(3, 0, 0), RC_OK) << "it may be repeated";
    EXPECT_EQ(WriteTransaction(3, "three"), kFirstItemOffset);
    EXPECT_EQ(ItemsOfFile(), (Items{"commit 3 3", "record 3 at 1056: three", "commit 3 3"}));
    EXPECT_EQ(m_solid.TruncateToClearRev(3, 0, 0), RC_OK);
    WriteTransaction(2, "two");
    EXPECT_EQ(ItemsOfFile(), Items{"commit 3 3"});
    EXPECT_TRUE(m_log.Has("Found rec with rev (2) less than lastCommitted at offset 1056"));
}

TEST_F(TruncateFile, OldItemsDoNotReturnWhenTheDataReachesThem) {
    for (const bool reopens : {false, true}) {
        OpenScanned("");
        EXPECT_EQ(m_solid.TruncateToClearRev(0, 0, 0), RC_OK);
        EXPECT_EQ(WrittenSize(), kTwoTransactionsEnd);
        if (reopens) {
            Reopen();
            EXPECT_EQ(Scanned(), Items{"commit 0 0"});
        }
        // Ends where the second transaction's record 3 lies in the old file.
        EXPECT_EQ(WriteTransaction(1, std::string(30, 'x')), kFirstItemOffset);
        EXPECT_TRUE(AllZeroFrom(kFirstItemOffset + 54 + 32));
        EXPECT_EQ(WrittenSize(), kTwoTransactionsEnd);
        EXPECT_EQ(ItemsOfFile(),
                  (Items{"commit 0 0", "record 1 at 1056: " + std::string(30, 'x'), "commit 0 1"}));
    }
}

TEST_F(TruncateFile, SetsTheInitialSize) {
    OpenScanned("file_initial_size=1");
    SetTimeStampCounter(0x77, 1);
    EXPECT_EQ(m_solid.TruncateToClearRev(3, 0, 0), RC_OK);
    std::vector<u8> expected = OverTwoTransactions(Beginning(0x77, 3));
    expected.resize(kMebibyte);
    EXPECT_EQ(WrittenBytes(), expected);
    EXPECT_EQ(m_solid.FileSize(), kMebibyte);
}

TEST_F(TruncateFile, GrowsByTheStepFromTheNewSize) {
    OpenScanned("file_size_delta=1");
    EXPECT_EQ(m_solid.TruncateToClearRev(3, 0, 0), RC_OK);
    WriteTransaction(4, "four");
    EXPECT_EQ(WrittenSize(), kNewFileSize + kMebibyte);
    EXPECT_EQ(m_solid.FileSize(), kNewFileSize + kMebibyte);
    EXPECT_TRUE(AllZeroFrom(kFirstItemOffset + 28 + 32));
}

TEST_F(TruncateFile, ThatFailsIsReportedAndMayBeTriedAgain) {
    constexpr struct {
        SystemCall call;
        u32 nth;
        const char* message;
    } kFaults[] = {{SystemCall::kSeek, 1, "Cannot seek to offset 0;"},
                   {SystemCall::kWrite, 1, "Cannot write file header to file;"},
                   {SystemCall::kSetEnd, 1, "Cannot set initial file size (1048576);"},
                   {SystemCall::kSeek, 2, "Cannot seek to offset 1056;"},
                   {SystemCall::kFlush, 1, "Cannot flush file;"}};
    for (const auto& fault : kFaults) {
        OpenScanned("file_initial_size=1");
        Fail(fault.call, fault.nth);
        const std::string text = fault.message + SysErr(SystemErrorKind::kInputOutput);
        EXPECT_EQ(m_solid.TruncateToClearRev(3, 0, 0), RC_SYSTEM_ERROR);
        EXPECT_EQ(LoggedTexts(), Texts{text});
        EXPECT_EQ(m_log.CodeOf(text), RC_SYSTEM_ERROR);
        EXPECT_EQ(m_solid.TruncateToClearRev(3, 0, 0), RC_OK);
        WriteTransaction(4, "four");
        EXPECT_EQ(ItemsOfFile(), (Items{"commit 3 3", "record 4 at 1056: four", "commit 3 4"}));
    }
}

TEST_F(TruncateFile, WithoutMemoryFails) {
    const std::vector<u8> before = WrittenBytes();
    FailAlloc(1);
    EXPECT_EQ(m_solid.TruncateToClearRev(3, 0, 0), RC_NO_MEMORY);
    EXPECT_EQ(WrittenBytes(), before);
    EXPECT_EQ(WriteTransaction(4, "four"), kTwoTransactionsEnd);
}

}  // namespace
}  // namespace k9erepl::test
