// Creating and deleting storage files when the system fails: codes, messages, what stays behind.
#include "solid/solid_fixture.h"
#include "solid/storage_file_admin.h"

namespace k9erepl::test {
namespace {

using platform::File;
using platform::FileDisposition;

class CreateFailure : public SolidTest {
  protected:
    // A creation that must fail with RC_SYSTEM_ERROR and this one error message, and leave no file.
    void ExpectFailure(const std::string& message, const std::string& settings = "") {
        EXPECT_EQ(CreateStorageFile(Conn(settings).c_str(), 0), RC_SYSTEM_ERROR);
        EXPECT_EQ(m_log.Texts(K9SYS_LOG_ERROR), Texts{message});
        EXPECT_EQ(m_log.CodeOf(message), RC_SYSTEM_ERROR);
        EXPECT_EQ(OpenDescriptors(), m_descriptors);
        EXPECT_FALSE(Exists(Path()));
    }

    const std::size_t m_descriptors = OpenDescriptors();
};

TEST_F(CreateFailure, SeekToTheStart) {
    FailSeek(1);
    ExpectFailure("Cannot seek to offset 0;" + SysErr(SystemErrorKind::kInputOutput));
}

TEST_F(CreateFailure, MemoryForTheFirstBytes) {
    FailAlloc(1, kNewFileSize);
    EXPECT_EQ(CreateStorageFile(Conn().c_str(), 0), RC_NO_MEMORY);
    EXPECT_EQ(OpenDescriptors(), m_descriptors);
    EXPECT_FALSE(Exists(Path()));
}

TEST_F(CreateFailure, WriteOfTheFirstBytes) {
    FailWrite(1);
    ExpectFailure("Cannot write file header to file;" + SysErr(SystemErrorKind::kNoSpace));
}

TEST_F(CreateFailure, ShortWriteOfTheFirstBytes) {
    ShortWrite(1, 1063);
    ExpectFailure("Cannot write file header to file;" + SysErr(SystemErrorKind::kNoSpace));
}

TEST_F(CreateFailure, ExtensionToTheInitialSize) {
    FailSetEnd(1);
    ExpectFailure("Cannot set initial file size (1048576);" + SysErr(SystemErrorKind::kNoSpace),
                  "file_initial_size=1");
}

TEST_F(CreateFailure, SeekToTheFirstItem) {
    FailSeek(2);
    ExpectFailure("Cannot seek to offset 1056;" + SysErr(SystemErrorKind::kInputOutput));
}

TEST_F(CreateFailure, FlushOfTheFile) {
    FailFlush(1);
    ExpectFailure("Cannot flush file;" + SysErr(SystemErrorKind::kInputOutput));
}

TEST_F(CreateFailure, FlushOfTheDirectory) {
    FailFlushDirectory(1);
    ExpectFailure("Cannot flush directory of file '" + Path() + "';" +
                  SysErr(SystemErrorKind::kInputOutput));
}

TEST_F(CreateFailure, LeavesNoFileWithAnyFlags) {
    for (const u32 flags : {0U, 1U, 2U, 3U}) {
        FailWrite(1);
        EXPECT_EQ(CreateStorageFile(Conn().c_str(), flags), RC_SYSTEM_ERROR);
        EXPECT_FALSE(Exists(Path())) << flags;
        EXPECT_EQ(OpenDescriptors(), m_descriptors);
    }
    EXPECT_EQ(CreateStorageFile(Conn().c_str(), 0), RC_OK);
    Open();
}

TEST_F(CreateFailure, KeepsAFileThatWasThereBefore) {
    WriteText(Path(), "was there before");
    FailWrite(1);
    EXPECT_EQ(CreateStorageFile(Conn().c_str(), 1), RC_SYSTEM_ERROR);
    EXPECT_EQ(FileSize(Path()), 0);
    EXPECT_EQ(TryOpen(), RC_SYSTEM_ERROR);
    EXPECT_EQ(CreateStorageFile(Conn().c_str(), 1), RC_OK);
    Open();
}

TEST_F(CreateFailure, OfAFileThatCannotBeDeletedAgainIsLogged) {
    FailWrite(1);
    FailRemove(1);
    EXPECT_EQ(CreateStorageFile(Conn().c_str(), 0), RC_SYSTEM_ERROR);
    EXPECT_TRUE(Exists(Path()));
    EXPECT_EQ(m_log.CodeOf("Cannot delete file that was not completed;file path '" + Path() + "'," +
                           SysErr(SystemErrorKind::kAccessDenied)),
              RC_SYSTEM_ERROR)
        << m_log;
    EXPECT_EQ(TryOpen(), RC_SYSTEM_ERROR);
    EXPECT_EQ(
        m_log.CodeOf("Storage file is empty, its creation was not completed;file path " + Path()),
        RC_SYSTEM_ERROR)
        << m_log;
}

// A folder that may be written but not read cannot be flushed, and can be used all the same.
TEST_F(CreateFailure, AFolderThatMayNotBeReadIsNone) {
    Fail(SystemCall::kFlushDirectory, 1, SystemErrorKind::kAccessDenied, Repeat::kFromThenOn);
    const std::string warning =
        "Directory may not be read and cannot be flushed, a crash may undo what was done to its "
        "names;file path '" +
        Path() + "'," + SysErr(SystemErrorKind::kAccessDenied);
    EXPECT_EQ(CreateStorageFile(Conn().c_str(), 0), RC_OK);
    EXPECT_EQ(m_log.Texts(K9SYS_LOG_WARNING), Texts{warning});
    EXPECT_EQ(DeleteStorageFile(Conn().c_str()), RC_OK);
    EXPECT_EQ(m_log.Count(warning), 2U) << m_log;
    EXPECT_TRUE(m_log.Texts(K9SYS_LOG_ERROR).empty()) << m_log;
}

TEST_F(CreateFailure, AnInterruptedOrSplitWriteIsNone) {
    FailWrite(1, SystemErrorKind::kInterrupted);
    SplitWrite(2, 100);
    EXPECT_EQ(CreateStorageFile(Conn().c_str(), 0), RC_OK);
    EXPECT_EQ(FileSize(Path()), 1064);
}

TEST_F(SolidTest, InitNewFileReportsTheSizeAndStandsAtTheFirstItem) {
    const TFileHeader header = NewFileHeader();
    for (const i64 asked : {i64{-1}, i64{0}, i64{1064}, i64{1065}}) {
        File file;
        ASSERT_TRUE(file.Open(Path().c_str(), {.disposition = FileDisposition::kCreateAlways}));
        i64 size = asked;
        EXPECT_EQ(InitNewFile(file, header, NewCommitBlock(7, 0), &size), RC_OK);
        EXPECT_EQ(size, asked > 1064 ? asked : 1064);
        EXPECT_EQ(FileSize(Path()), size);
        i64 position = 0;
        EXPECT_TRUE(file.Tell(&position));
        EXPECT_EQ(position, 1056);
    }
}

TEST_F(SolidTest, DeleteStorageFileDeletesTheFileAndNothingElse) {
    WriteText(Path(), "any file");
    WriteText(m_folder.File("data.edb-idx"), "its index");
    EXPECT_EQ(DeleteStorageFile(Conn().c_str()), RC_OK);
    EXPECT_FALSE(Exists(Path()));
    EXPECT_TRUE(Exists(m_folder.File("data.edb-idx")));
    EXPECT_EQ(CallCount(SystemCall::kFlushDirectory), 1U);
}

TEST_F(SolidTest, DeleteStorageFileOfAMissingFileFails) {
    EXPECT_EQ(DeleteStorageFile(Conn().c_str()), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf("Cannot delete storage file;path " + Path()), RC_SYSTEM_ERROR) << m_log;
}

TEST_F(SolidTest, DeleteStorageFileReportsARefusal) {
    WriteText(Path(), "any file");
    FailRemove(1);
    EXPECT_EQ(DeleteStorageFile(Conn().c_str()), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf("Cannot delete storage file;path " + Path()), RC_SYSTEM_ERROR) << m_log;
    EXPECT_TRUE(Exists(Path()));
}

TEST_F(SolidTest, DeleteStorageFileWithoutAPathAnswersInvalidArgument) {
    EXPECT_EQ(DeleteStorageFile("block_size=7"), RC_INVALID_ARG);
    EXPECT_EQ(m_log.CodeOf("Failed to get file parameter value;conn-str block_size=7"),
              RC_INVALID_ARG);
}

}  // namespace
}  // namespace k9erepl::test
