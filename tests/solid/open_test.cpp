// Opening the storage file: settings, their messages, which files are refused; a system that fails:
// every call once, no handle left behind.
#include <algorithm>
#include <iterator>
#include <utility>

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
    EXPECT_EQ(Logged(K9SYS_LOG_INFO, "file_size_delta=99999999999").at(2),
              "Use file_size_delta 2251799812636672")
        << "the limit of numbers";
}

TEST_F(OpenSolid, ReadsWordsByTheirPrefixAndAnEmptySettingAsAbsent) {
    SKIP_WHEN_ASYNC("the default of async_mode");
    Texts texts = Logged(K9SYS_LOG_INFO, "force_flush=yesplease;write_through=nope");
    EXPECT_EQ(m_result, RC_OK);
    texts.resize(2);
    EXPECT_EQ(texts, (Texts{"Use force_flush yes", "Use write_through no"}));
    texts = Logged(K9SYS_LOG_INFO, "force_flush=;write_through=;file_size_delta=");
    EXPECT_EQ(m_result, RC_OK);
    texts.resize(3);
    EXPECT_EQ(texts, (Texts{"Use default force_flush 'no'", "Use default write_through 'no'",
                            "Use default async_mode 'no'"}));
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

TEST_F(OpenSolid, RefusesOtherValues) {
    for (const std::string word : {"true", "Yes", "ye", "n", "1"}) {
        for (const std::string setting : {"force_flush", "commit_barrier", "write_through"}) {
            ExpectRefused(RC_INVALID_ARG, setting + "=" + word,
                          "Unknown " + setting + " value (" + word + ")");
        }
    }
    ExpectRefused(
        RC_BAD_SIZE, "file_initial_size=-1",
        "Invalid 'file_initial_size' value (-1048576);conn-str " + Conn("file_initial_size=-1"));
    ExpectRefused(
        RC_BAD_SIZE, "file_size_delta=-2",
        "Invalid 'file_size_delta' value (-2097152);conn-str " + Conn("file_size_delta=-2"));
    ExpectRefused(RC_BAD_SIZE, "async_mode=maybe", "Storage Writer creating failed.");
    ExpectRefused(RC_BAD_SIZE, "read_buffers_count=33",
                  "Wrong 'read_buffers_count' value (33); valid range is 1-32");
}

TEST_F(OpenSolid, RefusesASecondOpening) {
    Open();
    EXPECT_EQ(TryOpen(), RC_ALREADY);
    EXPECT_TRUE(m_solid.IsOpen());
    EXPECT_EQ(Scanned(), Items{"commit 0 0"});
}

TEST_F(OpenSolid, HoldsTwoHandlesUntilItIsClosedAndOpensAgain) {
    for (int openings = 0; openings < 2; ++openings) {
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
    EXPECT_EQ(CSolidStorage().Open(Path(), Conn().c_str()), RC_OK);
    EXPECT_EQ(OpenDescriptors(), m_descriptors) << "it closes its handles when it ends";
}

TEST_F(OpenSolid, ForgetsTheSettingsOfTheOpeningBefore) {
    SKIP_WHEN_ASYNC("a flush to the disk by each commit");
    const std::pair<std::string, u32> openings[] = {
        {"force_flush=yes;commit_barrier=yes;file_size_delta=1", 2},
        {"force_flush=yes", 1},
        {"", 0}};
    for (const auto& [settings, flushes] : openings) {
        FileBuilder().NewFile().Zeros(8).Save(Path());
        Open(settings);
        ASSERT_EQ(Scanned(), Items{"commit 0 0"});
        const u32 before = CallCount(SystemCall::kFlush);
        WriteTransaction(1, "one");
        EXPECT_EQ(CallCount(SystemCall::kFlush), before + flushes) << settings;
        EXPECT_EQ(WrittenSize(), flushes == 2 ? 1064 + kMebibyte : 1056 + 27 + 32);
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

TEST_F(OpenSolid, RefusesAFileWithoutASoundHeader) {
    for (const int version : {2, 4}) {
        PatchBytes(Path(), 8, std::vector<u8>{static_cast<u8>(version)});
        ExpectRefused(
            RC_INVALID_ARG, "",
            "Wrong file version " + std::to_string(version) + ",expected 3,file path " + Path());
    }
    PatchBytes(Path(), 7, std::vector<u8>{'l'});
    ExpectRefused(RC_INVALID_ARG, "", "Wrong file signature, file path " + Path());
    FileBuilder().NewFile().CutTo(1023).Save(Path());
    ExpectRefused(RC_SYSTEM_ERROR, "",
                  "Failed to read file header;file path " + Path() + ",sys-err 0");
    FileBuilder().NewFile().CutTo(1024).Save(Path());
    EXPECT_EQ(TryOpen(), RC_OK);
    EXPECT_EQ(m_solid.FileSize(), 1024);
}

TEST_F(OpenSolid, FailsWithEachOfItsCallsAndLeavesNoHandle) {
    const std::string failedToCreate =
        "Failed to create file '" + Path() + "';" + SysErr(SystemErrorKind::kInputOutput);
    const std::string ioError = SysErr(SystemErrorKind::kInputOutput);
    const struct {
        SystemCall call;
        u32 nth;
        Texts errors;
    } faults[] = {
        {SystemCall::kOpen, 1, {failedToCreate}},
        {SystemCall::kOpen, 2, {failedToCreate, "Storage Writer creating failed."}},
        {SystemCall::kRead, 1, {"Failed to read file header;file path " + Path() + "," + ioError}},
        {SystemCall::kFileSize,
         1,
         {"Cannot get file size;" + ioError + ",file path '" + Path() + "'"}}};
    for (const auto& fault : faults) {
        m_log.Clear();
        Fail(fault.call, fault.nth);
        EXPECT_EQ(TryOpen(), RC_SYSTEM_ERROR);
        EXPECT_EQ(m_log.Texts(K9SYS_LOG_ERROR), fault.errors);
        EXPECT_EQ(m_log.CodeOf(fault.errors.back()), RC_SYSTEM_ERROR);
        EXPECT_FALSE(m_solid.IsOpen());
        EXPECT_EQ(OpenDescriptors(), m_descriptors);
        EXPECT_EQ(Scan(), RC_NO_WRITER);
    }
    FailAlloc(1, ReadCacheManager::kBufferSize);
    ExpectRefused(RC_NO_MEMORY, "", "Couldn't allocate memory for 8 read buffers");
    Open();
    EXPECT_EQ(Scanned(), Items{"commit 0 0"});
}

TEST_F(SolidTest, AClosedStorageFileAnswersNoWriterEverywhere) {
    u32 lifenum = 7;
    i64 rev = 7;
    bool flag = true;
    const u32 answers[] = {
        m_solid.GetLifenum(&lifenum),
        m_solid.GetClearOldRev(&rev),
        m_solid.SetLifenum(1),
        m_solid.SetClearOldRev(1),
        Scan(),
        ScanFrom(1100),
        EnumerateRevs(1, 2),
        m_solid.ReadFirstCommitInfo(&rev, &flag),
        m_solid.CheckRecordAt(1, 1056),
        m_solid.BeginTransaction(),
        m_solid.Commit(),
        m_solid.RollbackWrites(),
        m_solid.GetFlushedRev(&rev),
        m_solid.SetClearRev(2),
        m_solid.TruncateToClearRev(3, 0, 0),
        m_solid.Squeeze({.clearRev = 2, .copyFrom = 1056, .commitOffset = 1110}, &rev),
    };
    EXPECT_EQ(std::count(std::begin(answers), std::end(answers), RC_NO_WRITER),
              std::ssize(answers));
    EXPECT_TRUE(m_completed);
    EXPECT_EQ(WriteRecord(1, "one"), kUnknownOffset);
    EXPECT_EQ(m_writeResult, RC_NO_WRITER);
    EXPECT_EQ(lifenum, 7U);
    EXPECT_EQ(rev, 7);
    EXPECT_TRUE(flag);
    EXPECT_EQ(LoggedTexts(), Texts{});
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
