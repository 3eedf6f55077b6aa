// Opening the storage file: settings, their messages, which files are refused.
#include "solid/solid_fixture.h"

namespace k9erepl::test {
namespace {

class OpenSolid : public SolidTest {
  protected:
    OpenSolid() { FileBuilder().NewFile().Zeros(8).Save(Path()); }

    // Opens with the settings and closes; what was logged at `level`.
    Texts Logged(K9SysLogLevel level, const std::string& settings) {
        m_log.Clear();
        m_result = TryOpen(settings);
        m_solid.Close();
        return m_log.Texts(level);
    }
    void ExpectRefused(u32 rc, const std::string& settings, const std::string& message) {
        EXPECT_EQ(TryOpen(settings), rc) << settings;
        EXPECT_EQ(m_log.CodeOf(message), rc) << m_log;
        EXPECT_FALSE(m_solid.IsOpen());
        EXPECT_EQ(OpenDescriptors(), m_descriptors);
    }

    const std::size_t m_descriptors = OpenDescriptors();
    u32 m_result = RC_OK;
};

TEST_F(OpenSolid, LogsItsDefaults) {
    SKIP_WHEN_ASYNC("the default of async_mode");
    EXPECT_EQ(Logged(K9SYS_LOG_INFO, ""),
              (Texts{"Use default force_flush 'no'", "Use default write_through 'no'",
                     "Use default async_mode 'no'", "Use default read_buffers_count 8"}));
    EXPECT_EQ(m_result, RC_OK);
}

TEST_F(OpenSolid, LogsWhatIsGiven) {
    EXPECT_EQ(Logged(K9SYS_LOG_INFO,
                     "force_flush=yes;write_through=no;file_size_delta=3;"
                     "file_initial_size=2;read_buffers_count=2;async_mode=no"),
              (Texts{"Use force_flush yes", "Use write_through no", "Use file_size_delta 3145728",
                     "Use  async_mode 'no'", "Use  read_buffers_count 2"}));
    EXPECT_EQ(m_result, RC_OK);
}

TEST_F(OpenSolid, ComparesOnlyThePrefixOfYesAndNo) {
    const Texts texts = Logged(K9SYS_LOG_INFO, "force_flush=yesplease;write_through=nope");
    EXPECT_EQ(m_result, RC_OK);
    ASSERT_GE(texts.size(), 2U);
    EXPECT_EQ(texts[0], "Use force_flush yes");
    EXPECT_EQ(texts[1], "Use write_through no");
}

TEST_F(OpenSolid, TreatsAnEmptySettingAsAbsent) {
    SKIP_WHEN_ASYNC("the default of async_mode");
    const Texts texts = Logged(K9SYS_LOG_INFO, "force_flush=;write_through=;file_size_delta=");
    EXPECT_EQ(m_result, RC_OK);
    ASSERT_GE(texts.size(), 3U);
    EXPECT_EQ(texts[0], "Use default force_flush 'no'");
    EXPECT_EQ(texts[1], "Use default write_through 'no'");
    EXPECT_EQ(texts[2], "Use default async_mode 'no'");
}

TEST_F(OpenSolid, RefusesOtherWordsForForceFlush) {
    for (const std::string word : {"true", "Yes", "ye", "n"}) {
        ExpectRefused(RC_INVALID_ARG, "force_flush=" + word,
                      "Unknown force_flush value (" + word + ")");
    }
}

TEST_F(OpenSolid, LogsACommitBarrierOnlyWhenItIsGiven) {
    EXPECT_EQ(Logged(K9SYS_LOG_INFO, "force_flush=yes;commit_barrier=yesplease;")[1],
              "Use commit_barrier yes");
    EXPECT_EQ(Logged(K9SYS_LOG_INFO, "commit_barrier=nope;")[1], "Use commit_barrier no");
    for (const std::string none : {"force_flush=yes;", "commit_barrier=;", ""}) {
        Logged(K9SYS_LOG_INFO, none);
        EXPECT_EQ(m_log.CountContaining("commit_barrier"), 0U) << none;
    }
}

TEST_F(OpenSolid, RefusesOtherWordsForCommitBarrier) {
    for (const std::string word : {"true", "Yes", "ye", "n"}) {
        ExpectRefused(RC_INVALID_ARG, "commit_barrier=" + word,
                      "Unknown commit_barrier value (" + word + ")");
    }
}

TEST_F(OpenSolid, RefusesOtherWordsForWriteThrough) {
    ExpectRefused(RC_INVALID_ARG, "write_through=1", "Unknown write_through value (1)");
}

TEST_F(OpenSolid, RefusesANegativeInitialSize) {
    ExpectRefused(
        RC_BAD_SIZE, "file_initial_size=-1",
        "Invalid 'file_initial_size' value (-1048576);conn-str " + Conn("file_initial_size=-1"));
}

TEST_F(OpenSolid, RefusesANegativeGrowthStep) {
    ExpectRefused(
        RC_BAD_SIZE, "file_size_delta=-2",
        "Invalid 'file_size_delta' value (-2097152);conn-str " + Conn("file_size_delta=-2"));
}

TEST_F(OpenSolid, TakesSizesUpToTheLimitOfNumbers) {
    const Texts texts = Logged(K9SYS_LOG_INFO, "file_size_delta=99999999999");
    EXPECT_EQ(m_result, RC_OK);
    EXPECT_EQ(texts.at(2), "Use file_size_delta 2251799812636672");
}

TEST_F(OpenSolid, RefusesAWriterSetting) {
    ExpectRefused(RC_BAD_SIZE, "async_mode=maybe", "Storage Writer creating failed.");
}

TEST_F(OpenSolid, RefusesAReadCacheSetting) {
    ExpectRefused(RC_BAD_SIZE, "read_buffers_count=33",
                  "Wrong 'read_buffers_count' value (33); valid range is 1-32");
}

TEST_F(OpenSolid, RefusesASecondOpening) {
    Open();
    EXPECT_EQ(TryOpen(), RC_ALREADY);
    EXPECT_TRUE(m_solid.IsOpen());
    EXPECT_EQ(Scanned(), Items{"commit 0 0"});
}

TEST_F(OpenSolid, HoldsTwoHandlesUntilItIsClosed) {
    Open();
    EXPECT_EQ(OpenDescriptors(), m_descriptors + 2);
    EXPECT_EQ(m_solid.Path(), Path());
    EXPECT_EQ(m_solid.FileSize(), 1064);
    m_solid.Close();
    EXPECT_EQ(OpenDescriptors(), m_descriptors);
    EXPECT_FALSE(m_solid.IsOpen());
    EXPECT_EQ(m_solid.FileSize(), 0);
    EXPECT_EQ(m_solid.Path(), "");
}

TEST_F(OpenSolid, OpensAgainAfterClosing) {
    Open();
    m_solid.Close();
    Open();
    EXPECT_EQ(Scanned(), Items{"commit 0 0"});
}

TEST_F(OpenSolid, ClosesItsHandlesWhenItEnds) {
    {
        CSolidStorage other;
        EXPECT_EQ(other.Open(Path(), Conn().c_str()), RC_OK);
    }
    EXPECT_EQ(OpenDescriptors(), m_descriptors);
}

TEST_F(OpenSolid, ForgetsTheSettingsOfTheOpeningBefore) {
    SKIP_WHEN_ASYNC("a flush to the disk by each commit");
    Open("force_flush=yes;file_size_delta=1");
    m_solid.Close();
    Open();
    ASSERT_EQ(Scanned(), Items{"commit 0 0"});
    WriteTransaction(1, "one");
    EXPECT_EQ(CallCount(SystemCall::kFlush), 0U);
    EXPECT_EQ(WrittenSize(), 1056 + 27 + 32);
}

TEST_F(OpenSolid, ForgetsTheCommitBarrierOfTheOpeningBefore) {
    SKIP_WHEN_ASYNC("a flush to the disk by each commit");
    for (const auto& [settings, flushes] :
         {std::pair{"force_flush=yes;commit_barrier=yes", 2U}, {"force_flush=yes", 1U}}) {
        FileBuilder().NewFile().Zeros(8).Save(Path());
        Open(settings);
        ASSERT_EQ(Scanned(), Items{"commit 0 0"});
        const u32 before = CallCount(SystemCall::kFlush);
        WriteTransaction(1, "one");
        EXPECT_EQ(CallCount(SystemCall::kFlush), before + flushes) << settings;
        m_solid.Close();
    }
}

TEST_F(OpenSolid, ForgetsWhatTheScanBeforeHasFound) {
    m_solid.Close();
    Open(FileBuilder().Header().Commit(5, 6));
    EXPECT_EQ(Scanned(), Items{"commit 5 6"});
    EXPECT_EQ(FlushedRev(), 6);
    m_solid.Close();
    Open(FileBuilder().NewFile());
    EXPECT_EQ(FlushedRev(), 0);
    EXPECT_EQ(WriteTransaction(1, ""), 1056);
    const auto block = LoadUnaligned<TCommitBlock>(WrittenBytes().data() + 1080);
    EXPECT_EQ(i64{block.clearRev}, 0);
    EXPECT_EQ(u32{block.prevSequence}, 0U);
}

TEST_F(OpenSolid, RefusesAWrongSignature) {
    PatchBytes(Path(), 7, std::vector<u8>{'l'});
    ExpectRefused(RC_INVALID_ARG, "", "Wrong file signature, file path " + Path());
}

TEST_F(OpenSolid, RefusesOtherVersions) {
    for (const u8 version : {u8{2}, u8{4}}) {
        PatchBytes(Path(), 8, std::vector<u8>{version});
        ExpectRefused(
            RC_INVALID_ARG, "",
            "Wrong file version " + std::to_string(version) + ",expected 3,file path " + Path());
    }
}

TEST_F(OpenSolid, RefusesAFileShorterThanAHeader) {
    ResizeFile(Path(), 1023);
    ExpectRefused(RC_SYSTEM_ERROR, "",
                  "Failed to read file header;file path " + Path() + ",sys-err 0");
}

TEST_F(OpenSolid, TakesAFileOfOneHeader) {
    ResizeFile(Path(), 1024);
    EXPECT_EQ(TryOpen(), RC_OK);
    EXPECT_EQ(m_solid.FileSize(), 1024);
}

}  // namespace
}  // namespace k9erepl::test
