// How the writer grows the file ahead of the data.
#include <gtest/gtest.h>

#include <string>

#include "writers/writer_fixture.h"

namespace k9erepl::test {

namespace {

constexpr i64 kStep = 1024;

class Growth : public WriterTest {
  protected:
    Growth() { m_state.fileSizeDelta = kStep; }
};

}  // namespace

TEST_F(Growth, AWriteThatEndsAtTheRecordedSizeDoesNotExpand) {
    ASSERT_EQ(Append(Bytes(8)), RC_OK);
    EXPECT_EQ(FileLength(), kNewFileSize);
    EXPECT_EQ(m_state.fileSize, kNewFileSize);
    EXPECT_EQ(SetEnds(), 0U);
}

TEST_F(Growth, OneByteMoreExpandsByOneStep) {
    ASSERT_EQ(Append(Bytes(9, 0xEE)), RC_OK);
    EXPECT_EQ(FileLength(), kNewFileSize + kStep);
    EXPECT_EQ(m_state.fileSize, kNewFileSize + kStep);
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "File was expanded; new size 2088 ")) << m_log;
    EXPECT_EQ(FileBytes(kStart, 9), Bytes(9, 0xEE));
    EXPECT_EQ(FileBytes(kStart + 9, kStep - 1), Bytes(kStep - 1));
}

TEST_F(Growth, ExpandsBeforeItWrites) {
    ASSERT_EQ(Append(Bytes(9)), RC_OK);
    const std::vector<std::string> texts = m_log.Texts();
    ASSERT_EQ(texts.size(), 3U) << m_log;
    EXPECT_EQ(texts[0], "File was expanded; new size 2088 ");
    EXPECT_EQ(texts[2], "Written data size 9, last rev 0");
}

TEST_F(Growth, TheWriteLandsRightWhereExpandingMovesThePointer) {
    platform::TheSystemCalls().setFileEnd = SetEndMovingThePointer;
    ASSERT_EQ(Append(Bytes(9, 0xEE)), RC_OK);
    EXPECT_EQ(FileBytes(kStart, 9), Bytes(9, 0xEE));
    EXPECT_EQ(FileLength(), kNewFileSize + kStep);
}

TEST_F(Growth, WithoutAStepTheFileGrowsOnlyByWrites) {
    for (const i64 step : {i64{0}, i64{-1}}) {
        StorageFileState state;
        state.path = m_path;
        state.fileSizeDelta = step;
        SyncStorageWriter writer(&state);
        ASSERT_EQ(writer.SetWritePos(kStart, true), RC_OK);
        Bytes data(5000);
        ASSERT_EQ(writer.Write(data.data(), 5000, nullptr, nullptr, 0, nullptr), RC_OK);
        EXPECT_EQ(FileLength(), kStart + 5000);
        EXPECT_EQ(state.fileSize, 0);
    }
    EXPECT_EQ(SetEnds(), 0U);
}

TEST_F(Growth, ALargeWriteExpandsByOneStepOnly) {
    ASSERT_EQ(Append(Bytes(5000)), RC_OK);
    EXPECT_EQ(SetEnds(), 1U);
    EXPECT_EQ(m_state.fileSize, kNewFileSize + kStep);
    EXPECT_EQ(FileLength(), kStart + 5000);
}

TEST_F(Growth, TheStepAfterALargeWriteCutsNothing) {
    const Bytes large(5000, 0xEE);
    ASSERT_EQ(Append(large), RC_OK);
    ASSERT_EQ(Append(BytesOf("next")), RC_OK);
    EXPECT_EQ(FileBytes(kStart, 5004), large + BytesOf("next"));
    EXPECT_EQ(m_state.fileSize, kNewFileSize + 2 * kStep);
    EXPECT_TRUE(m_log.Has("File was expanded; new size 3112 ")) << m_log;
}

TEST_F(Growth, StepsCatchUpWithALargeWrite) {
    ASSERT_EQ(Append(Bytes(5000)), RC_OK);
    while (m_state.fileSize < kStart + 5000) {
        ASSERT_EQ(Append(Bytes(1)), RC_OK);
    }
    const i64 recorded = m_state.fileSize;
    EXPECT_EQ(FileLength(), recorded);
    ASSERT_EQ(Append(Bytes(1)), RC_OK);
    EXPECT_EQ(m_state.fileSize, recorded);
}

TEST_F(Growth, AFailedExpansionIsReportedAndItsSizeStaysRecorded) {
    Writer();
    FailSetEnd(1);
    EXPECT_EQ(Append(Bytes(9)), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf("Cannot expand file by (1024);" + SysErr(SystemErrorKind::kNoSpace)),
              RC_SYSTEM_ERROR)
        << m_log;
    EXPECT_EQ(m_state.fileSize, kNewFileSize + kStep);
    EXPECT_EQ(Writer().WritePos(), kStart);
    EXPECT_EQ(FileLength(), kNewFileSize);
}

TEST_F(Growth, TheWriteAfterAFailedExpansionLandsAtTheWritePosition) {
    Writer();
    FailSetEnd(1);
    ASSERT_EQ(Append(Bytes(9)), RC_SYSTEM_ERROR);
    ASSERT_EQ(Append(BytesOf("123456789")), RC_OK);
    EXPECT_EQ(FileBytes(kStart, 9), BytesOf("123456789"));
    EXPECT_EQ(SetEnds(), 1U);
}

TEST_F(Growth, AnExpansionThatFailedAfterMovingThePointerMisplacesNothing) {
    Writer();
    platform::TheSystemCalls().setFileEnd = [](platform::NativeFile file, i64 size) {
        return SetEndMovingThePointer(file, size) && false;
    };
    ASSERT_EQ(Append(Bytes(9)), RC_SYSTEM_ERROR);
    ASSERT_EQ(Append(BytesOf("123456789")), RC_OK);
    EXPECT_EQ(FileBytes(kStart, 9), BytesOf("123456789"));
}

TEST_F(Growth, AFailedSeekBackIsReportedAndTheNextWriteMakesUpForIt) {
    Writer();
    FailSeek(1);
    EXPECT_EQ(Append(Bytes(9)), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf("Cannot seek to offset 1056;" + SysErr(SystemErrorKind::kInputOutput)),
              RC_SYSTEM_ERROR)
        << m_log;
    ASSERT_EQ(Append(BytesOf("123456789")), RC_OK);
    EXPECT_EQ(FileBytes(kStart, 9), BytesOf("123456789"));
    EXPECT_EQ(m_state.fileSize, kNewFileSize + kStep);
}

}  // namespace k9erepl::test
