// Opening the storage file when the system fails: every call once, no handle left behind.
#include "solid/solid_fixture.h"
#include "support/new_fault.h"

namespace k9erepl::test {
namespace {

class OpenFailure : public SolidTest {
  protected:
    OpenFailure() { FileBuilder().NewFile().Zeros(8).Save(Path()); }

    void ExpectFailure(u32 rc, const Texts& errors) {
        EXPECT_EQ(TryOpen(), rc);
        EXPECT_EQ(m_log.Texts(K9SYS_LOG_ERROR), errors);
        ExpectClosed();
    }
    void ExpectClosed() {
        EXPECT_FALSE(m_solid.IsOpen());
        EXPECT_EQ(OpenDescriptors(), m_descriptors);
        EXPECT_EQ(Scan(), RC_NO_WRITER);
    }
    std::string FailedToCreate() const {
        return "Failed to create file '" + Path() + "';" + SysErr(SystemErrorKind::kAccessDenied);
    }

    const std::size_t m_descriptors = OpenDescriptors();
};

TEST_F(OpenFailure, OfTheFile) {
    FailOpen(1);
    ExpectFailure(RC_SYSTEM_ERROR, {FailedToCreate()});
    EXPECT_EQ(m_log.CodeOf(FailedToCreate()), RC_SYSTEM_ERROR);
}

TEST_F(OpenFailure, OfAMissingFile) {
    EXPECT_EQ(m_solid.Open(m_folder.File("missing"), ""), RC_SYSTEM_ERROR);
    EXPECT_TRUE(m_log.Has("Failed to create file '" + m_folder.File("missing") + "';" +
                          SysErr(SystemErrorKind::kNotFound)))
        << m_log;
    EXPECT_FALSE(Exists(m_folder.File("missing")));
}

TEST_F(OpenFailure, OfTheReadOfTheHeader) {
    FailRead(1);
    ExpectFailure(RC_SYSTEM_ERROR, {"Failed to read file header;file path " + Path() + "," +
                                    SysErr(SystemErrorKind::kInputOutput)});
}

TEST_F(OpenFailure, OfAReadThatStaysShort) {
    ShortRead(1, 1023);
    ExpectFailure(RC_SYSTEM_ERROR,
                  {"Failed to read file header;file path " + Path() + ",sys-err 0"});
}

TEST_F(OpenFailure, OfTheSize) {
    FailFileSize(1);
    const std::string text = "Cannot get file size;" + SysErr(SystemErrorKind::kInputOutput) +
                             ",file path '" + Path() + "'";
    ExpectFailure(RC_SYSTEM_ERROR, {text});
    EXPECT_EQ(m_log.CodeOf(text), RC_SYSTEM_ERROR);
}

TEST_F(OpenFailure, OfTheWritersFile) {
    FailOpen(2);
    ExpectFailure(RC_SYSTEM_ERROR, {FailedToCreate(), "Storage Writer creating failed."});
    EXPECT_EQ(m_log.CodeOf("Storage Writer creating failed."), RC_SYSTEM_ERROR);
}

TEST_F(OpenFailure, OfTheReadBuffersMemory) {
    FailAlloc(1, ReadCacheManager::kBufferSize);
    ExpectFailure(RC_NO_MEMORY, {"Couldn't allocate memory for 8 read buffers"});
}

TEST_F(OpenFailure, OfAnyAllocation) {
    K9SysSetLogLevel(nullptr, K9SYS_LOG_OFF);  // collecting messages allocates, too
    const std::string path = Path();
    const std::string conn = Conn("async_mode=no;force_flush=no-or-something-just-as-long");
    u32 rc = RC_NO_MEMORY;
    u32 struck = 0;
    while (rc != RC_OK) {
        {
            const FailNthNew fault(struck + 1);
            rc = m_solid.Open(path, conn.c_str());
            EXPECT_EQ(rc, fault.Struck() ? RC_NO_MEMORY : RC_OK);
        }
        struck += rc == RC_OK ? 0U : 1U;
        EXPECT_EQ(OpenDescriptors(), m_descriptors + (rc == RC_OK ? 2U : 0U)) << struck;
    }
    EXPECT_GE(struck, 3U);  // the path, the writer, the table of read buffers
}

TEST_F(OpenFailure, IsForgottenByTheNextOpening) {
    FailFileSize(1);
    EXPECT_EQ(TryOpen(), RC_SYSTEM_ERROR);
    EXPECT_EQ(TryOpen(), RC_OK);
    EXPECT_EQ(Scanned(), Items{"commit 0 0"});
}

TEST_F(SolidTest, AClosedStorageFileAnswersNoWriterEverywhere) {
    u32 lifenum = 7;
    i64 rev = 7;
    bool flag = true;
    EXPECT_EQ(m_solid.GetLifenum(&lifenum), RC_NO_WRITER);
    EXPECT_EQ(m_solid.GetClearOldRev(&rev), RC_NO_WRITER);
    EXPECT_EQ(m_solid.SetLifenum(1), RC_NO_WRITER);
    EXPECT_EQ(m_solid.SetClearOldRev(1), RC_NO_WRITER);
    EXPECT_EQ(Scan(), RC_NO_WRITER);
    EXPECT_EQ(ScanFrom(1100), RC_NO_WRITER);
    EXPECT_EQ(EnumerateRevs(1, 2), RC_NO_WRITER);
    EXPECT_TRUE(m_completed);
    EXPECT_EQ(m_solid.ReadFirstCommitInfo(&rev, &flag), RC_NO_WRITER);
    EXPECT_EQ(m_solid.CheckRecordAt(1, 1056), RC_NO_WRITER);
    EXPECT_EQ(m_solid.BeginTransaction(), RC_NO_WRITER);
    EXPECT_EQ(m_solid.Commit(), RC_NO_WRITER);
    EXPECT_EQ(m_solid.RollbackWrites(), RC_NO_WRITER);
    EXPECT_EQ(m_solid.GetFlushedRev(&rev), RC_NO_WRITER);
    EXPECT_EQ(WriteRecord(1, "one"), kUnknownOffset);
    EXPECT_EQ(m_writeResult, RC_NO_WRITER);
    EXPECT_EQ(lifenum, 7U);
    EXPECT_EQ(rev, 7);
    EXPECT_TRUE(flag);
}

TEST_F(SolidTest, AScanWithoutACallbackIsRefused) {
    const K9eReplScanRecordCb record = [](std::uint64_t, const K9eReplRec*, void*) { return 0U; };
    const K9eReplScanCommitCb commit = [](void*, std::int64_t, std::int64_t) { return 0U; };
    EXPECT_EQ(m_solid.ScanFile(nullptr, commit, this), RC_INVALID_ARG);
    EXPECT_EQ(m_solid.ScanFile(record, nullptr, this), RC_INVALID_ARG);
    EXPECT_EQ(m_solid.ScanFile(record, commit, this), RC_NO_WRITER);
}

}  // namespace
}  // namespace k9erepl::test
