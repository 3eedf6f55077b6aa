// The writer's handle on the file and its write position: opening, placing, reopening, closing.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/storage_exception.h"
#include "writers/writer_fixture.h"

namespace k9erepl::test {
namespace {

std::vector<platform::FileOpenRequest> g_requests;

platform::NativeFile RecordingOpen(const char* path, const platform::FileOpenRequest& request) {
    g_requests.push_back(request);
    return platform::NativeSystemCalls().openFile(path, request);
}

class WriterFile : public WriterTest {
  protected:
    WriterFile() { g_requests.clear(); }
};

TEST_F(WriterFile, IsOpenedForReadingAndWritingAndSharedForBoth) {
    platform::TheSystemCalls().openFile = RecordingOpen;
    m_state.writeThrough = true;
    Writer();
    ASSERT_EQ(Writer().ReopenFile(m_path, false), RC_OK);
    ASSERT_EQ(g_requests.size(), 2U);
    EXPECT_EQ(g_requests[0].access, platform::FileAccess::kReadWrite);
    EXPECT_EQ(g_requests[0].disposition, platform::FileDisposition::kOpenExisting);
    EXPECT_EQ(g_requests[0].sharing, platform::FileSharing::kReadWrite);
    EXPECT_TRUE(g_requests[0].writeThrough);
    EXPECT_FALSE(g_requests[1].writeThrough);
}

TEST_F(WriterFile, IsWrittenFromItsRecordedSizeOn) {
    SyncStorageWriter writer(&m_state);
    EXPECT_EQ(writer.WritePos(), kNewFileSize);
    Bytes data = BytesOf("at the end");
    ASSERT_EQ(writer.Write(data.data(), 10, nullptr, nullptr, 0, nullptr), RC_OK);
    EXPECT_EQ(FileBytes(kNewFileSize, 10), data);
    EXPECT_EQ(FileLength(), kNewFileSize + 10);
}

TEST_F(WriterFile, SetWritePosMovesThePointerAtOnceOnlyWhenAsked) {
    for (const bool seek : {true, false}) {
        ASSERT_EQ(Writer().SetWritePos(kStart, true), RC_OK);
        const u32 seeks = CallCount(SystemCall::kSeek);
        ASSERT_EQ(Writer().SetWritePos(1060, seek), RC_OK);
        EXPECT_EQ(CallCount(SystemCall::kSeek), seeks + (seek ? 1 : 0));
        EXPECT_EQ(Writer().WritePos(), 1060);
        ASSERT_EQ(Append(BytesOf("x")), RC_OK);
        EXPECT_EQ(CallCount(SystemCall::kSeek), seeks + 1);
        EXPECT_EQ(FileBytes(1060, 1), BytesOf("x"));
    }
}

TEST_F(WriterFile, AFailedSeekLeavesTheWritePosition) {
    Writer();
    FailSeek(1);
    EXPECT_EQ(Writer().SetWritePos(2000, true), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf("Cannot seek to write pos;offset 2000, " +
                           SysErr(SystemErrorKind::kInputOutput)),
              RC_SYSTEM_ERROR)
        << m_log;
    EXPECT_EQ(Writer().WritePos(), kStart);
    ASSERT_EQ(AppendRecord(1), RC_OK);
    EXPECT_EQ(Items(m_path), "C0 R1");
}

TEST_F(WriterFile, ALateSeekThatFailsIsReportedByTheWrite) {
    ASSERT_EQ(Writer().SetWritePos(kStart, false), RC_OK);
    FailSeek(1);
    EXPECT_EQ(AppendRecord(1), RC_SYSTEM_ERROR);
    EXPECT_TRUE(m_log.Has("Cannot seek to offset 1056;" + SysErr(SystemErrorKind::kInputOutput)))
        << m_log;
    ASSERT_EQ(AppendRecord(1), RC_OK);
    EXPECT_EQ(Items(m_path), "C0 R1");
}

TEST_F(WriterFile, ReopenFileWritesIntoTheNewFile) {
    const std::string other = m_folder.File("other");
    WriteBytes(other, FileBytes());
    ASSERT_EQ(AppendRecord(1), RC_OK);
    ASSERT_EQ(Writer().ReopenFile(other, false), RC_OK);
    EXPECT_EQ(CallCount(SystemCall::kClose), 1U);
    ASSERT_EQ(Writer().SetWritePos(kStart, true), RC_OK);
    ASSERT_EQ(AppendRecord(9), RC_OK);
    EXPECT_EQ(Items(other), "C0 R9");
    EXPECT_EQ(Items(m_path), "C0 R1");
}

TEST_F(WriterFile, ReopenFileThatFailsKeepsTheOldFile) {
    Writer();
    const std::string missing = m_folder.File("missing");
    EXPECT_EQ(Writer().ReopenFile(missing, false), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf("Failed to create file '" + missing + "';" +
                           SysErr(SystemErrorKind::kNotFound)),
              RC_SYSTEM_ERROR)
        << m_log;
    EXPECT_FALSE(Exists(missing));
    ASSERT_EQ(AppendRecord(1), RC_OK);
    EXPECT_EQ(Items(m_path), "C0 R1");
}

TEST_F(WriterFile, ReopenFileAfterCloseFileWritesOn) {
    ASSERT_EQ(AppendRecord(1), RC_OK);
    Writer().CloseFile();
    Writer().CloseFile();
    EXPECT_EQ(CallCount(SystemCall::kClose), 1U);
    EXPECT_EQ(AppendRecord(2), RC_NO_WRITER);
    ASSERT_EQ(Writer().ReopenFile(m_path, false), RC_OK);
    ASSERT_EQ(AppendRecord(2), RC_OK);
    EXPECT_EQ(Items(m_path), "C0 R1 R2");
}

}  // namespace
}  // namespace k9erepl::test
