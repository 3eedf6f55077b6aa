// What an open file does when nothing goes wrong.
#include <utility>

#include "files_fixture.h"

namespace k9erepl::test {
namespace {

class FileTest : public FilesFixture {};

TEST_F(FileTest, OpenExistingFailsWithoutAFile) {
    File file;
    EXPECT_FALSE(Open(file, "none"));
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kNotFound));
    EXPECT_FALSE(file.IsOpen());
    EXPECT_FALSE(Exists(PathOf("none")));
}

TEST_F(FileTest, CreateNewFailsWhereAFileStands) {
    WriteText(PathOf("a"), "old");
    File file;
    EXPECT_FALSE(Create(file, "a"));
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kAlreadyExists));
    EXPECT_EQ(ReadText(PathOf("a")), "old");
}

TEST_F(FileTest, CreateAlwaysEmptiesAnExistingFile) {
    WriteText(PathOf("a"), "old");
    File file;
    ASSERT_TRUE(Open(file, "a", {.disposition = FileDisposition::kCreateAlways}));
    EXPECT_EQ(FileSize(PathOf("a")), 0);
}

TEST_F(FileTest, CreateAlwaysMakesAMissingFile) {
    File file;
    ASSERT_TRUE(Open(file, "a", {.disposition = FileDisposition::kCreateAlways}));
    EXPECT_TRUE(Exists(PathOf("a")));
}

TEST_F(FileTest, OpenAlwaysLeavesAnExistingFileAsItIs) {
    WriteText(PathOf("a"), "old");
    File file;
    ASSERT_TRUE(Open(file, "a", {.disposition = FileDisposition::kOpenAlways}));
    EXPECT_EQ(Read(file, 10), "old");
}

TEST_F(FileTest, OpenAlwaysMakesAMissingFile) {
    File file;
    ASSERT_TRUE(Open(file, "a", {.disposition = FileDisposition::kOpenAlways}));
    EXPECT_EQ(FileSize(PathOf("a")), 0);
}

TEST_F(FileTest, AFileOpenedForReadingRefusesWrites) {
    WriteText(PathOf("a"), "old");
    File file;
    ASSERT_TRUE(Open(file, "a", {.access = FileAccess::kRead, .sequentialScan = true}));
    EXPECT_EQ(Read(file, 3), "old");
    EXPECT_FALSE(Write(file, "new"));
    EXPECT_EQ(ReadText(PathOf("a")), "old");
}

TEST_F(FileTest, AFileOpenedForWritingRefusesReads) {
    WriteText(PathOf("a"), "old");
    File file;
    ASSERT_TRUE(Open(file, "a", {.access = FileAccess::kWrite}));
    EXPECT_EQ(Read(file, 3), "");
    EXPECT_TRUE(Write(file, "new"));
    EXPECT_EQ(ReadText(PathOf("a")), "new");
}

TEST_F(FileTest, AWriteThroughFileTakesWrites) {
    File file;
    ASSERT_TRUE(
        Open(file, "a", {.disposition = FileDisposition::kCreateNew, .writeThrough = true}));
    EXPECT_TRUE(Write(file, "kept"));
    EXPECT_EQ(ReadText(PathOf("a")), "kept");
}

TEST_F(FileTest, ReadsAndWritesMoveThePointer) {
    File file;
    ASSERT_TRUE(Create(file, "a"));
    i64 position = -1;
    ASSERT_TRUE(Write(file, "0123456789") && file.Tell(&position));
    EXPECT_EQ(position, 10);
    ASSERT_TRUE(file.Seek(3));
    EXPECT_EQ(Read(file, 4), "3456");
    ASSERT_TRUE(file.Tell(&position));
    EXPECT_EQ(position, 7);
}

TEST_F(FileTest, ReadAtTheEndGivesWhatIsThere) {
    WriteText(PathOf("a"), "01234");
    File file;
    ASSERT_TRUE(Open(file, "a") && file.Seek(3));
    char bytes[8];
    u32 got = 99;
    EXPECT_TRUE(file.Read(bytes, sizeof bytes, &got));
    EXPECT_EQ(got, 2U);
    EXPECT_TRUE(file.Read(bytes, sizeof bytes, &got));
    EXPECT_EQ(got, 0U);
}

TEST_F(FileTest, TwoFilesOnOnePathHaveTheirOwnPointers) {
    WriteText(PathOf("a"), "01234");
    File first;
    File second;
    ASSERT_TRUE(Open(first, "a") && Open(second, "a"));
    EXPECT_EQ(Read(first, 3), "012");
    EXPECT_EQ(Read(second, 2), "01");
}

TEST_F(FileTest, SeekBeforeTheBeginningFails) {
    File file;
    ASSERT_TRUE(Create(file, "a"));
    EXPECT_FALSE(file.Seek(-1));
}

TEST_F(FileTest, PositionsBeyondFourGigabytesAreKept) {
    constexpr i64 kFar = (i64{5} << 30) + 7;
    File file;
    ASSERT_TRUE(Create(file, "a") && file.Seek(kFar));
    i64 position = 0;
    ASSERT_TRUE(file.Tell(&position));
    EXPECT_EQ(position, kFar);
    ASSERT_TRUE(file.SetEnd(kFar));
    i64 size = 0;
    ASSERT_TRUE(file.GetSize(&size));
    EXPECT_EQ(size, kFar);
}

TEST_F(FileTest, SetEndExtendsWithZeros) {
    File file;
    ASSERT_TRUE(Create(file, "a") && Write(file, "ab") && file.SetEnd(4));
    EXPECT_EQ(ReadBytes(PathOf("a")), (std::vector<u8>{'a', 'b', 0, 0}));
}

TEST_F(FileTest, SetEndCuts) {
    File file;
    ASSERT_TRUE(Create(file, "a") && Write(file, "abcd") && file.SetEnd(1));
    EXPECT_EQ(ReadText(PathOf("a")), "a");
}

TEST_F(FileTest, SetEndRefusesANegativeSize) {
    File file;
    ASSERT_TRUE(Create(file, "a"));
    EXPECT_FALSE(file.SetEnd(-1));
}

TEST_F(FileTest, FlushToDiskSucceedsOnAnOpenFile) {
    File file;
    ASSERT_TRUE(Create(file, "a") && Write(file, "ab"));
    EXPECT_TRUE(file.FlushToDisk());
}

TEST_F(FileTest, StartFlushChangesNeitherTheFileNorTheLastError) {
    File file;
    const auto start = [&file] {
        platform::SetLastSystemError(SystemErrorOf(SystemErrorKind::kNoSpace));
        file.StartFlush(0, 2);
        EXPECT_TRUE(LastErrorIs(SystemErrorKind::kNoSpace));
    };
    start();
    ASSERT_TRUE(Create(file, "a") && Write(file, "ab"));
    start();
    i64 position = 0;
    EXPECT_TRUE(file.Tell(&position));
    EXPECT_EQ(position, 2);
    EXPECT_EQ(ReadText(PathOf("a")), "ab");
}

TEST_F(FileTest, OpeningAgainClosesTheFormerFile) {
    const ScopedSystemCalls systemCalls;
    File file;
    ASSERT_TRUE(Create(file, "a") && Create(file, "b") && Write(file, "x"));
    EXPECT_EQ(CallCount(SystemCall::kClose), 1U);
    EXPECT_EQ(ReadText(PathOf("a")), "");
    EXPECT_EQ(ReadText(PathOf("b")), "x");
}

TEST_F(FileTest, AFailedOpenKeepsTheFormerFile) {
    File file;
    ASSERT_TRUE(Create(file, "a"));
    EXPECT_FALSE(Open(file, "none"));
    EXPECT_TRUE(file.IsOpen());
    EXPECT_TRUE(Write(file, "x"));
    EXPECT_EQ(ReadText(PathOf("a")), "x");
}

TEST_F(FileTest, MovingHandsTheFileOver) {
    File first;
    ASSERT_TRUE(Create(first, "a"));
    File second(std::move(first));
    // NOLINTNEXTLINE(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
    EXPECT_FALSE(first.IsOpen());
    EXPECT_TRUE(Write(second, "x"));
    File third;
    ASSERT_TRUE(Create(third, "b"));
    third = std::move(second);
    EXPECT_TRUE(Write(third, "y"));
    EXPECT_EQ(ReadText(PathOf("a")), "xy");
    EXPECT_EQ(ReadText(PathOf("b")), "");
}

TEST_F(FileTest, EveryOperationFailsOnAClosedFile) {
    File file;
    i64 number = 5;
    u32 count = 5;
    char byte = 0;
    EXPECT_FALSE(file.Read(&byte, 1, &count));
    EXPECT_EQ(count, 0U);
    EXPECT_FALSE(file.Write(&byte, 1, &count));
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kInvalidHandle));
    EXPECT_FALSE(file.Seek(0));
    EXPECT_FALSE(file.Tell(&number));
    EXPECT_FALSE(file.SetEnd(0));
    EXPECT_FALSE(file.GetSize(&number));
    EXPECT_FALSE(file.FlushToDisk());
    EXPECT_EQ(number, 5);
}

}  // namespace
}  // namespace k9erepl::test
