// The writes of the index file, and what is left when one of them fails.
#include "index/index_file_writer.h"

#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <filesystem>
#include <utility>

#include "index/index_file.h"
#include "index/index_fixture.h"

namespace k9erepl::test {
namespace {

class IndexFileWriterTest : public ::testing::Test {
  protected:
    void CreateWith(u32 count) {
        ASSERT_EQ(m_writer.Create(m_image), RC_OK);
        if (count != 0) {
            m_blocks.AddMany(count);
            ASSERT_EQ(Save(), RC_OK);
        }
    }
    u32 Save() {
        EXPECT_EQ(m_image.Update(m_blocks.Index()), IndexUpdate::kChanged);
        const u32 rc = m_writer.Write(m_image);
        if (rc == RC_OK) {
            m_image.MarkSaved();
        }
        return rc;
    }
    // What a reader finds once the writer is gone: some systems let nobody read beside it.
    u32 Read(IndexFileContent* content) {
        m_writer.Close();
        return ReadIndexFile(m_path, content);
    }
    // That a write of `part` failed for `kind`.
    void ExpectFailure(const std::string& part, SystemErrorKind kind) {
        const std::string text =
            "Couldn't write file '" + m_path + "' (" + part + "); sysErr " + SysErr(kind);
        EXPECT_TRUE(m_log.Has(K9SYS_LOG_ERROR, text)) << m_log;
        EXPECT_EQ(m_log.CodeOf(text), RC_SYSTEM_ERROR);
    }

    ScopedSystemCalls m_systemCalls;
    TempFolder m_folder;
    LogCapture m_log;
    Blocks m_blocks;
    const std::string m_path = m_folder.File("a/b/data.edb-idx");
    IndexImage m_image{kBlockSize};
    IndexFileWriter m_writer{m_path};
};

TEST_F(IndexFileWriterTest, MakesTheDirectoriesAndAFileWithoutEntries) {
    EXPECT_EQ(m_writer.Create(m_image), RC_OK);
    EXPECT_EQ(ReadBytes(m_path), IndexFileBytes({}));
    EXPECT_TRUE(m_log.Messages().empty()) << m_log;
    m_blocks.AddMany(5);
    ASSERT_EQ(Save(), RC_OK);
    m_writer.Close();
    m_image.Reset();
    EXPECT_EQ(m_writer.Create(m_image), RC_OK) << "it empties an existing file";
    EXPECT_EQ(ReadBytes(m_path), IndexFileBytes({}));
}

TEST_F(IndexFileWriterTest, LeavesAStorageFileAlone) {
    CreateWith(0);
    m_writer.Close();
    const std::string storage = "K9_EREPL\3" + std::string(1055, '\0');
    WriteText(m_path, storage);
    m_image.Reset();
    EXPECT_EQ(m_writer.Create(m_image), RC_INVALID_ARG);
    EXPECT_EQ(m_writer.Write(m_image), RC_SYSTEM_ERROR);
    EXPECT_EQ(ReadText(m_path), storage);
    EXPECT_EQ(CallCount(SystemCall::kOpen), CallCount(SystemCall::kClose));
}

TEST_F(IndexFileWriterTest, SaysWhatFailsAtTheCreation) {
    const struct {
        SystemCall call;
        const char* text;
        bool stays;  // the old file, which is looked at first
    } faults[] = {{SystemCall::kMakeDirectory, "Couldn't create directory for '", false},
                  {SystemCall::kOpen, "Couldn't open file '", true},
                  {SystemCall::kFileSize, "Couldn't open file '", true},
                  {SystemCall::kRead, "Couldn't open file '", true},
                  {SystemCall::kSetEnd, "Couldn't write file header;file '", false},
                  {SystemCall::kWrite, "Couldn't write file header;file '", false}};
    const std::vector<u8> old = IndexFileBytes({{1, 1056}});
    for (const auto& fault : faults) {
        m_log.Clear();
        Fail(fault.call, 1, SystemErrorKind::kAccessDenied, Repeat::kFromThenOn);
        EXPECT_EQ(m_writer.Create(m_image), RC_SYSTEM_ERROR);
        const std::string text =
            fault.text + m_path + "'; sysErr " + SysErr(SystemErrorKind::kAccessDenied);
        EXPECT_EQ(m_log.CodeOf(text), RC_SYSTEM_ERROR) << m_log;
        EXPECT_TRUE(!fault.stays || ReadBytes(m_path) == old);
        StopFailing(fault.call);
        std::filesystem::create_directories(m_folder.File("a/b"));
        WriteBytes(m_path, old);
    }
    EXPECT_EQ(CallCount(SystemCall::kOpen), CallCount(SystemCall::kClose) + 1) << "one failed";
}

TEST_F(IndexFileWriterTest, WritesTheWholeFileInOneWriteAndCutsALongerOne) {
    CreateWith(0);
    m_blocks.AddMany(3);
    EXPECT_EQ(Save(), RC_OK);
    EXPECT_EQ(ReadBytes(m_path), IndexFileBytes(m_blocks.All()));
    EXPECT_EQ(CallCount(SystemCall::kWrite), 2U);
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "File rewritten (80 bytes)")) << m_log;
    m_blocks.RemoveFrom(2);
    EXPECT_EQ(Save(), RC_OK);
    EXPECT_EQ(ReadBytes(m_path), IndexFileBytes(m_blocks.All()));
}

TEST_F(IndexFileWriterTest, WritesTheTailThenTheHeader) {
    CreateWith(3);
    const u32 writes = CallCount(SystemCall::kWrite);
    m_blocks.AddMany(2);
    EXPECT_EQ(Save(), RC_OK);
    EXPECT_EQ(ReadBytes(m_path), IndexFileBytes(m_blocks.All()));
    EXPECT_EQ(CallCount(SystemCall::kWrite), writes + 2);
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "File updated (48 bytes)")) << m_log;
}

TEST_F(IndexFileWriterTest, SaysWhichPartCannotBeWritten) {
    m_blocks.AddMany(1);
    EXPECT_EQ(Save(), RC_SYSTEM_ERROR) << "no file is open";
    EXPECT_EQ(m_log.CountContaining("' (full); sysErr "), 1U) << m_log;
    m_image.Reset();
    CreateWith(0);
    m_blocks.AddMany(3);
    FailSetEnd(1);
    EXPECT_EQ(Save(), RC_SYSTEM_ERROR);
    ExpectFailure("full", SystemErrorKind::kNoSpace);
    FailSeek(1);
    EXPECT_EQ(Save(), RC_SYSTEM_ERROR);
    ExpectFailure("full", SystemErrorKind::kInputOutput);
    ShortWrite(1, 40);
    EXPECT_EQ(Save(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CountContaining("' (full); sysErr "), 4U) << m_log;
    EXPECT_EQ(Save(), RC_OK);
    m_blocks.AddMany(2);
    for (const auto& [nth, part] : {std::pair{1U, "tail"}, {2U, "header"}}) {
        FailSeek(nth);
        EXPECT_EQ(Save(), RC_SYSTEM_ERROR);
        ExpectFailure(part, SystemErrorKind::kInputOutput);
        FailWrite(nth);
        EXPECT_EQ(Save(), RC_SYSTEM_ERROR);
        ExpectFailure(part, SystemErrorKind::kNoSpace);
    }
}

TEST_F(IndexFileWriterTest, LeavesAnInvalidFileWhenOnlyTheTailWasWritten) {
    for (const bool replaced : {false, true}) {
        m_image.Reset();
        m_blocks.Clear();
        CreateWith(3);
        if (replaced) {
            m_blocks.Add(100, m_blocks.All().back().second);
        } else {
            m_blocks.AddMany(2);
        }
        FailWrite(2);
        EXPECT_EQ(Save(), RC_SYSTEM_ERROR);
        IndexFileContent content;
        EXPECT_EQ(Read(&content), RC_NOT_FOUND);
        EXPECT_TRUE(m_log.Has(replaced ? "Wrong checksum" : "Check file header failed")) << m_log;
    }
}

}  // namespace
}  // namespace k9erepl::test
