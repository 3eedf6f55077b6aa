// The load scan when a callback or the system ends it.
#include "solid/file_scan.h"
#include "solid/solid_fixture.h"

namespace k9erepl::test {
namespace {

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

TEST_F(ScanFailure, OfTheRecordCallbackIsReturned) {
    AnswerAt(2, 4711);
    ExpectFailure(4711, {});
}

TEST_F(ScanFailure, OfTheCallbackForTheFirstCommitBlockIsReturned) {
    AnswerAtCommit(1, 12);
    EXPECT_EQ(Scan(), 12U);
    EXPECT_EQ(m_items, Items{"commit 0 0"});
    ExpectWorksAgain();
}

TEST_F(ScanFailure, OfTheCallbackForALaterCommitBlockIsReturned) {
    AnswerAtCommit(2, 13);
    EXPECT_EQ(Scan(), 13U);
    EXPECT_EQ(m_items.back(), "commit 0 2");
    ExpectWorksAgain();
}

TEST_F(ScanFailure, OfTheBuffersMemory) {
    FailAlloc(1, FileScan::kBufferSize);
    ExpectFailure(RC_NO_MEMORY, {});
}

TEST_F(ScanFailure, OfTheRead) {
    FailRead(1);
    ExpectFailure(RC_SYSTEM_ERROR, {"Failed to read block;" +
                                    SysErr(SystemErrorKind::kInputOutput) + ",offset 1024"});
}

TEST_F(ScanFailure, OfAReadThatHadBegun) {
    SplitRead(1, 40);
    FailRead(2);
    EXPECT_EQ(Scan(), RC_SYSTEM_ERROR);
    ExpectWorksAgain();
}

TEST_F(ScanFailure, OfTheSeekToTheStart) {
    EXPECT_EQ(ScanFrom(1110), RC_OK);  // the file pointer now stands elsewhere
    m_log.Clear();
    FailSeek(1);
    EXPECT_EQ(Scan(), RC_SYSTEM_ERROR);
    EXPECT_EQ(LoggedTexts(), Texts{"Cannot seek to start enum recs;offset 1024, " +
                                   SysErr(SystemErrorKind::kInputOutput)});
    EXPECT_EQ(Scanned(), TwoTransactionsItems());
}

TEST_F(ScanFailure, OfTheSeekToTheWritePosition) {
    FailSeek(1);
    EXPECT_EQ(Scan(), RC_SYSTEM_ERROR);
    const std::string text =
        "Cannot seek to write pos;offset 1203, " + SysErr(SystemErrorKind::kInputOutput);
    EXPECT_EQ(m_log.CodeOf(text), RC_SYSTEM_ERROR) << m_log;
    ExpectWorksAgain();
}

TEST_F(ScanFailure, OfARefill) {
    m_solid.Close();
    Open(FileBuilder().NewFile().LargeRecord(1, 9'000'000).LargeRecord(2, 9'000'000).Commit(0, 2));
    FailRead(2);
    EXPECT_EQ(Scan(), RC_SYSTEM_ERROR);
    EXPECT_TRUE(m_log.Has("Failed to read block;" + SysErr(SystemErrorKind::kInputOutput) +
                          ",offset 9001080"))
        << m_log;
    EXPECT_EQ(Scanned().size(), 4U);
}

TEST_F(ScanFailure, AReadThatStaysShortIsFollowedByAnother) {
    ShortRead(1, 1150 - 1024);
    EXPECT_EQ(Scanned(), TwoTransactionsItems());
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

TEST_F(ScanFailure, OfALaterReadThatEndsBeforeTheFileDoes) {
    m_solid.Close();
    Open(FileBuilder().NewFile().LargeRecord(1, 9'000'000).LargeRecord(2, 9'000'000).Commit(0, 2));
    ShortRead(2, 5'000'000);
    EXPECT_EQ(Scan(), RC_SHORT_READ);
    EXPECT_EQ(Scanned().size(), 4U);
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

TEST_F(ScanFailure, ASplitReadIsNone) {
    SplitRead(1, 40);
    EXPECT_EQ(Scanned(), TwoTransactionsItems());
}

TEST_F(ScanFailure, NeverKeepsTheBuffer) {
    // The address sanitizer's leak check completes this: every way out frees what was allocated.
    AnswerAt(1, 5);
    EXPECT_EQ(Scan(), 5U);
    FailRead(1);
    EXPECT_EQ(Scan(), RC_SYSTEM_ERROR);
    EXPECT_EQ(Scan(), RC_OK);
}

}  // namespace
}  // namespace k9erepl::test
