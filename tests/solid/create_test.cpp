// Creating storage files: which files the flags leave alone, which bytes a new file has.
#include <filesystem>

#include "platform/system_error.h"
#include "solid/solid_fixture.h"
#include "solid/storage_file_admin.h"

namespace k9erepl::test {
namespace {

class CreateStorageFileTest : public SolidTest {
  protected:
    static constexpr u64 kStamp = 0x1122'3344'5566'7788;

    u32 Create(u32 flags = 0, const std::string& settings = "") {
        SetTimeStampCounter(kStamp);
        return CreateStorageFile(Conn(settings).c_str(), flags);
    }
    // A new file as it must be.
    static std::vector<u8> NewFile() {
        return FileBuilder()
            .Header()
            .RawCommit({.signature = kCommitSignature,
                        .prevSequence = 0,
                        .sequence = 0x5566'7788,
                        .zero = 0,
                        .clearRev = 0,
                        .commitRev = 0})
            .Zeros(8)
            .Bytes();
    }
    // The path of this length in the temporary folder.
    std::string PathOfLength(std::size_t length) const {
        std::string path = m_folder.Path() + "/";
        while (path.size() + 101 < length) {
            path += std::string(99, 'd') + "/";
        }
        return path + std::string(length - path.size(), 'f');
    }
    std::string FailedToCreate(SystemErrorKind kind) const {
        return "Failed to create file '" + Path() + "';" + SysErr(kind);
    }
};

TEST_F(CreateStorageFileTest, WritesHeaderFirstCommitBlockAndEightZeros) {
    EXPECT_EQ(Create(), RC_OK);
    EXPECT_EQ(ReadBytes(Path()), NewFile());
    EXPECT_EQ(ReadBytes(Path()).size(), 1064U);
    EXPECT_TRUE(m_log.Messages().empty()) << m_log;
}

TEST_F(CreateStorageFileTest, MakesAFileThatOpensAsAnEmptyStorage) {
    ASSERT_EQ(Create(), RC_OK);
    Open();
    EXPECT_EQ(Scanned(), Items{"commit 0 0"});
}

TEST_F(CreateStorageFileTest, FlushesTheFileThenItsDirectory) {
    EXPECT_EQ(Create(), RC_OK);
    EXPECT_EQ(CallCount(SystemCall::kFlush), 1U);
    EXPECT_EQ(CallCount(SystemCall::kFlushDirectory), 1U);
}

TEST_F(CreateStorageFileTest, LeavesNoHandleOpen) {
    const std::size_t before = OpenDescriptors();
    for (const u32 flags : {0U, 2U, 1U, 3U, 0U}) {
        Create(flags);
    }
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(CreateStorageFileTest, WithoutFlagsRefusesAnExistingFile) {
    WriteText(Path(), "something else");
    EXPECT_EQ(Create(0), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf(FailedToCreate(SystemErrorKind::kAlreadyExists)), RC_SYSTEM_ERROR)
        << m_log;
    EXPECT_EQ(ReadText(Path()), "something else");
}

TEST_F(CreateStorageFileTest, Flag1ReplacesAnExistingFile) {
    WriteBytes(Path(), FileBuilder().Fill(5000, 0xEE).Bytes());
    EXPECT_EQ(Create(1), RC_OK);
    EXPECT_EQ(ReadBytes(Path()), NewFile());
}

TEST_F(CreateStorageFileTest, Flag1DeletesTheIndexFile) {
    WriteText(m_folder.File("data.edb-idx"), "old");
    EXPECT_EQ(Create(1), RC_OK);
    EXPECT_FALSE(Exists(m_folder.File("data.edb-idx")));
}

TEST_F(CreateStorageFileTest, Flag1DeletesTheIndexFileAlsoWhenTheCreationFails) {
    WriteText(m_folder.File("data.edb-idx"), "old");
    std::filesystem::create_directory(Path());
    const u32 rc = Create(1);
    EXPECT_EQ(rc, RC_SYSTEM_ERROR);
    EXPECT_FALSE(Exists(m_folder.File("data.edb-idx")));
    EXPECT_EQ(m_log.CountContaining("Failed to create file '" + Path() + "';sys-err "), 1U);
}

TEST_F(CreateStorageFileTest, AFailedCreationIsLoggedWithItsOwnErrorNotThatOfTheIndexFile) {
    FailOpen(1, SystemErrorKind::kAccessDenied);
    EXPECT_EQ(Create(1), RC_SYSTEM_ERROR);
    EXPECT_TRUE(m_log.Has(FailedToCreate(SystemErrorKind::kAccessDenied))) << m_log;
}

TEST_F(CreateStorageFileTest, OnlyFlag1DeletesTheIndexFile) {
    WriteText(m_folder.File("data.edb-idx"), "old");
    EXPECT_EQ(Create(0), RC_OK);
    EXPECT_EQ(Create(2), RC_OK);
    EXPECT_EQ(Create(3), RC_OK);
    EXPECT_TRUE(Exists(m_folder.File("data.edb-idx")));
}

TEST_F(CreateStorageFileTest, Flag2LeavesAnExistingFileWhateverItHolds) {
    WriteText(Path(), "no storage file");
    EXPECT_EQ(Create(2), RC_OK);
    EXPECT_EQ(ReadText(Path()), "no storage file");
    EXPECT_EQ(CallCount(SystemCall::kWrite), 0U);
    EXPECT_EQ(CallCount(SystemCall::kRead), 0U);
}

TEST_F(CreateStorageFileTest, Flag2WinsOverFlag1) {
    WriteText(Path(), "no storage file");
    EXPECT_EQ(Create(3), RC_OK);
    EXPECT_EQ(ReadText(Path()), "no storage file");
}

TEST_F(CreateStorageFileTest, Flag2CreatesAMissingFile) {
    EXPECT_EQ(Create(2), RC_OK);
    EXPECT_EQ(ReadBytes(Path()), NewFile());
}

TEST_F(CreateStorageFileTest, Flag2NeverEmptiesAFileThatCannotBeOpened) {
    WriteText(Path(), "precious");
    FailOpen(1, SystemErrorKind::kAccessDenied);
    EXPECT_EQ(Create(2), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf(FailedToCreate(SystemErrorKind::kAccessDenied)), RC_SYSTEM_ERROR);
    EXPECT_EQ(ReadText(Path()), "precious");
}

TEST_F(CreateStorageFileTest, Flag2NeverEmptiesAFileThatAppearsMeanwhile) {
    WriteText(Path(), "precious");
    FailOpen(1, SystemErrorKind::kNotFound);
    EXPECT_EQ(Create(2), RC_SYSTEM_ERROR);
    EXPECT_TRUE(m_log.Has(FailedToCreate(SystemErrorKind::kAlreadyExists))) << m_log;
    EXPECT_EQ(ReadText(Path()), "precious");
}

TEST_F(CreateStorageFileTest, MakesTheMissingDirectories) {
    const std::string path = m_folder.File("a/b/c/data.edb");
    EXPECT_EQ(CreateStorageFile(("file=" + path).c_str(), 0), RC_OK);
    EXPECT_EQ(FileSize(path), 1064);
}

TEST_F(CreateStorageFileTest, ADirectoryThatCannotBeMadeShowsWhenTheFileIsCreated) {
    WriteText(m_folder.File("a"), "a file where a directory should be");
    const std::string path = m_folder.File("a/data.edb");
    EXPECT_EQ(CreateStorageFile(("file=" + path).c_str(), 2), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CountContaining("Failed to create file '" + path + "';sys-err "), 1U) << m_log;
}

TEST_F(CreateStorageFileTest, MemoryInAnyCaseOfLettersTouchesNothing) {
    for (const char* conn : {"file=:memory:", "file=:MEMORY:", "file=:MeMory:"}) {
        EXPECT_EQ(CreateStorageFile(conn, 1), RC_OK) << conn;
        EXPECT_EQ(DeleteStorageFile(conn), RC_OK) << conn;
    }
    EXPECT_EQ(CallCount(SystemCall::kOpen), 0U);
    EXPECT_EQ(CallCount(SystemCall::kMakeDirectory), 0U);
    EXPECT_EQ(CallCount(SystemCall::kRemove), 0U);
}

TEST_F(CreateStorageFileTest, WithoutAPathAnswersInvalidArgument) {
    for (const std::string conn : {"", "file=", "block_size=5", "file"}) {
        EXPECT_EQ(CreateStorageFile(conn.c_str(), 0), RC_INVALID_ARG) << conn;
        const std::string text = "Failed to get file parameter value;conn-str " + conn;
        EXPECT_EQ(m_log.CodeOf(text), RC_INVALID_ARG) << m_log;
    }
}

TEST_F(CreateStorageFileTest, APathOf259CharactersIsAccepted) {
    const std::string path = PathOfLength(259);
    EXPECT_EQ(CreateStorageFile(("file=" + path).c_str(), 0), RC_OK) << m_log;
    EXPECT_EQ(FileSize(path), 1064);
    EXPECT_EQ(DeleteStorageFile(("file=" + path).c_str()), RC_OK);
}

TEST_F(CreateStorageFileTest, APathOf260CharactersIsTooLong) {
    const std::string conn = "file=" + PathOfLength(260);
    EXPECT_EQ(CreateStorageFile(conn.c_str(), 0), RC_PATH_TOO_LONG);
    EXPECT_EQ(DeleteStorageFile(conn.c_str()), RC_PATH_TOO_LONG);
    const std::string text = "Failed to get file parameter value;conn-str " + conn;
    EXPECT_EQ(m_log.CodeOf(text), RC_PATH_TOO_LONG) << m_log;
    EXPECT_EQ(m_log.Count(text), 2U);
}

TEST_F(CreateStorageFileTest, InitialSize0Leaves1064Bytes) {
    EXPECT_EQ(Create(0, "file_initial_size=0"), RC_OK);
    EXPECT_EQ(ReadBytes(Path()), NewFile());
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Use file_initial_size 0")) << m_log;
}

TEST_F(CreateStorageFileTest, ANegativeInitialSizeIsNotRefusedHere) {
    EXPECT_EQ(Create(0, "file_initial_size=-3"), RC_OK);
    EXPECT_EQ(ReadBytes(Path()), NewFile());
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Use file_initial_size -3145728")) << m_log;
}

TEST_F(CreateStorageFileTest, InitialSize1GivesOneMebibyteWithZerosBehind) {
    EXPECT_EQ(Create(0, "file_initial_size=1"), RC_OK);
    std::vector<u8> expected = NewFile();
    expected.resize(1'048'576);
    EXPECT_EQ(ReadBytes(Path()), expected);
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Use file_initial_size 1048576")) << m_log;
}

}  // namespace
}  // namespace k9erepl::test
