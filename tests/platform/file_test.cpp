// What an open file does when nothing goes wrong, and when system calls are interrupted, stay short
// or fail; and when a file that knows its pointer's place asks the system to move it.
#include "platform/file.h"

#include <functional>
#include <utility>

#include "files_fixture.h"
#include "platform/tracked_file.h"

namespace k9erepl::test {
namespace {

using FileTest = FilesFixture;

TEST_F(FileTest, DispositionsSayWhetherAFileIsMadeAndEmptied) {
    const struct {
        FileDisposition disposition;
        bool exists;       // with the text "old"
        const char* text;  // afterwards; null: it cannot be opened
        SystemErrorKind refusal = {};
    } cases[] = {{FileDisposition::kOpenExisting, false, nullptr, SystemErrorKind::kNotFound},
                 {FileDisposition::kOpenExisting, true, "old"},
                 {FileDisposition::kCreateNew, false, ""},
                 {FileDisposition::kCreateNew, true, nullptr, SystemErrorKind::kAlreadyExists},
                 {FileDisposition::kCreateAlways, false, ""},
                 {FileDisposition::kCreateAlways, true, ""},
                 {FileDisposition::kOpenAlways, false, ""},
                 {FileDisposition::kOpenAlways, true, "old"}};
    for (const auto& [disposition, exists, text, refusal] : cases) {
        const std::string name =
            (exists ? "old" : "new") + std::to_string(static_cast<int>(disposition));
        SCOPED_TRACE(name);
        if (exists) {
            WriteText(PathOf(name), "old");
        }
        File file;
        ASSERT_EQ(Open(file, name, {.disposition = disposition}), text != nullptr);
        EXPECT_TRUE(text != nullptr || LastErrorIs(refusal));
        EXPECT_EQ(file.IsOpen(), text != nullptr);
        ASSERT_EQ(Exists(PathOf(name)), exists || text != nullptr);
        EXPECT_TRUE((!exists && text == nullptr) ||
                    ReadText(PathOf(name)) == (text == nullptr ? "old" : text));
    }
}

TEST_F(FileTest, AFileOpenedForOneUseRefusesTheOther) {
    WriteText(PathOf("a"), "old");
    File reader;
    ASSERT_TRUE(Open(reader, "a", {.access = FileAccess::kRead, .sequentialScan = true}));
    EXPECT_EQ(Read(reader, 3), "old");
    EXPECT_FALSE(Write(reader, "new"));
    EXPECT_EQ(ReadText(PathOf("a")), "old");
    File writer;
    ASSERT_TRUE(Open(writer, "a", {.access = FileAccess::kWrite, .writeThrough = true}));
    EXPECT_EQ(Read(writer, 3), "");
    EXPECT_TRUE(Write(writer, "new") && writer.FlushToDisk());
    EXPECT_EQ(ReadText(PathOf("a")), "new");
}

TEST_F(FileTest, ReadsAndWritesMoveThePointerOfTheirOwnFile) {
    File file;
    File other;
    ASSERT_TRUE(Create(file, "a") && Open(other, "a"));
    i64 position = -1;
    ASSERT_TRUE(Write(file, "0123456789") && file.Tell(&position));
    EXPECT_EQ(position, 10);
    ASSERT_TRUE(file.Seek(3));
    EXPECT_EQ(Read(file, 4), "3456");
    ASSERT_TRUE(file.Tell(&position));
    EXPECT_EQ(position, 7);
    EXPECT_EQ(Read(other, 2), "01");
    EXPECT_FALSE(file.Seek(-1));
}

TEST_F(FileTest, ReadAtTheEndGivesWhatIsThere) {
    WriteText(PathOf("a"), "01234");
    File file;
    ASSERT_TRUE(Open(file, "a") && file.Seek(3));
    for (const u32 there : {2U, 0U}) {
        char bytes[8];
        u32 got = 99;
        EXPECT_TRUE(file.Read(bytes, sizeof bytes, &got));
        EXPECT_EQ(got, there);
    }
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

TEST_F(FileTest, SetEndCutsAndExtendsWithZeros) {
    File file;
    ASSERT_TRUE(Create(file, "a") && Write(file, "abcd") && file.SetEnd(1));
    EXPECT_EQ(ReadText(PathOf("a")), "a");
    ASSERT_TRUE(file.SetEnd(3));
    EXPECT_EQ(ReadBytes(PathOf("a")), (std::vector<u8>{'a', 0, 0}));
    EXPECT_FALSE(file.SetEnd(-1));
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

TEST_F(FileTest, OpeningAgainClosesTheFormerFileUnlessItFails) {
    const ScopedSystemCalls systemCalls;
    File file;
    ASSERT_TRUE(Create(file, "a"));
    EXPECT_FALSE(Open(file, "none"));
    EXPECT_TRUE(file.IsOpen());
    ASSERT_TRUE(Write(file, "x") && Create(file, "b") && Write(file, "y"));
    EXPECT_EQ(CallCount(SystemCall::kClose), 1U);
    EXPECT_EQ(ReadText(PathOf("a")), "x");
    EXPECT_EQ(ReadText(PathOf("b")), "y");
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

class FileFaults : public FilesFixture {
  protected:
    FileFaults() {
        WriteText(PathOf("a"), "0123456789");
        EXPECT_TRUE(Open(m_file, "a"));
    }
    // Reads 8 bytes, of which it gets `expected`, and tells whether it succeeds.
    bool ReadEight(const std::string& expected) {
        std::string bytes(8, '?');
        u32 got = 0;
        const bool done = m_file.Read(bytes.data(), 8, &got);
        EXPECT_EQ(bytes.substr(0, got), expected);
        return done;
    }

    ScopedSystemCalls m_systemCalls;
    File m_file;
};

TEST_F(FileFaults, AReadGivenInTwoPartsIsCompleted) {
    SplitRead(1, 4);
    EXPECT_TRUE(ReadEight("01234567"));
    EXPECT_EQ(CallCount(SystemCall::kRead), 2U);
}

TEST_F(FileFaults, AReadThatStaysShortReportsWhatItGot) {
    ShortRead(1, 4);
    EXPECT_TRUE(ReadEight("0123"));
    SplitRead(1, 3);
    FailRead(2);
    EXPECT_FALSE(ReadEight("456"));
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kInputOutput));
}

TEST_F(FileFaults, AWriteTakenInTwoPartsIsCompleted) {
    SplitWrite(1, 1);
    EXPECT_TRUE(Write(m_file, "abc"));
    EXPECT_EQ(CallCount(SystemCall::kWrite), 2U);
    EXPECT_EQ(ReadText(PathOf("a")), "abc3456789");
}

TEST_F(FileFaults, AWriteThatStaysShortFailsAndReportsWhatItPut) {
    ShortWrite(1, 2);
    u32 put = 0;
    EXPECT_FALSE(m_file.Write("abc", 3, &put));
    EXPECT_EQ(put, 2U);
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kNoSpace));
    EXPECT_EQ(ReadText(PathOf("a")), "ab23456789");
    platform::TheSystemCalls().writeFile = [](platform::NativeFile, const void*, u32) {
        return i64{0};
    };
    EXPECT_FALSE(m_file.Write("abc", 3, &put));
    EXPECT_EQ(put, 0U);
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kNoSpace));
}

TEST_F(FileFaults, ReadingAndWritingNothingCallsNothing) {
    u32 count = 7;
    EXPECT_TRUE(m_file.Write("", 0, &count));
    EXPECT_EQ(count, 0U);
    EXPECT_TRUE(m_file.Read(nullptr, 0, &count));
    EXPECT_EQ(CallCount(SystemCall::kWrite) + CallCount(SystemCall::kRead), 0U);
}

TEST_F(FileFaults, CloseIsNotRepeatedAfterAnInterruption) {
    Fail(SystemCall::kClose, 1, SystemErrorKind::kInterrupted);
    m_file.Close();
    EXPECT_EQ(CallCount(SystemCall::kClose), 1U);
    EXPECT_FALSE(m_file.IsOpen());
}

TEST_F(FileFaults, EachOperationIsRepeatedWhenInterruptedAndFailsOnceWithTheSystemsError) {
    const std::string path = PathOf("a");
    char bytes[4];
    u32 count = 0;
    i64 number = 0;
    const struct {
        SystemCall call;
        std::function<bool()> run;
    } operations[] = {
        {SystemCall::kOpen, [&] { return m_file.Open(path.c_str(), {}); }},
        {SystemCall::kRead, [&] { return m_file.Read(bytes, sizeof bytes, &count); }},
        {SystemCall::kWrite, [&] { return m_file.Write("abcd", 4, &count); }},
        {SystemCall::kSeek, [&] { return m_file.Seek(2); }},
        {SystemCall::kTell, [&] { return m_file.Tell(&number); }},
        {SystemCall::kSetEnd, [&] { return m_file.SetEnd(5); }},
        {SystemCall::kFileSize, [&] { return m_file.GetSize(&number); }},
        {SystemCall::kFlush, [&] { return m_file.FlushToDisk(); }},
        {SystemCall::kTakeOwnerAndMode, [&] { return m_file.TakeOwnerAndMode(path.c_str()); }},
    };
    for (const auto& [call, run] : operations) {
        SCOPED_TRACE(static_cast<int>(call));
        const u32 before = CallCount(call);
        Fail(call, 1, SystemErrorKind::kInterrupted);
        EXPECT_TRUE(run());
        Fail(call, 1, SystemErrorKind::kInputOutput);
        EXPECT_FALSE(run());
        EXPECT_TRUE(LastErrorIs(SystemErrorKind::kInputOutput));
        EXPECT_EQ(CallCount(call), before + 3);
    }
}

class TrackedFileTest : public FilesFixture {
  protected:
    TrackedFileTest() {
        WriteText(PathOf("a"), "0123456789");
        File file;
        EXPECT_TRUE(Open(file, "a", {.access = FileAccess::kRead}));
        m_file = platform::TrackedFile(std::move(file), 0);
    }

    // Seeks with `seeks` system calls, reads `text` and stands behind it.
    void ExpectRead(i64 position, const std::string& text, u32 seeks, u32 size = 4) {
        const u32 before = CallCount(SystemCall::kSeek);
        std::string bytes(size, '?');
        u32 got = 0;
        EXPECT_TRUE(m_file.Seek(position) && m_file.Read(bytes.data(), size, &got));
        EXPECT_EQ(bytes.substr(0, got), text);
        EXPECT_EQ(CallCount(SystemCall::kSeek) - before, seeks);
        EXPECT_EQ(m_file.Position(), position + got);
    }

    ScopedSystemCalls m_systemCalls;
    platform::TrackedFile m_file;
};

TEST_F(TrackedFileTest, OnlyAnotherPlaceNeedsASeek) {
    ExpectRead(0, "0123", 0);
    ExpectRead(4, "4567", 0);
    ExpectRead(6, "6789", 1);
    ExpectRead(8, "89", 1);
    ExpectRead(10, "", 0);
}

TEST_F(TrackedFileTest, AFailedSeekLeavesThePosition) {
    ExpectRead(0, "0123", 0);
    FailSeek(1);
    EXPECT_FALSE(m_file.Seek(6));
    ExpectRead(4, "4567", 0);
}

TEST_F(TrackedFileTest, AnUnknownPositionIsSoughtAgain) {
    FailRead(1);
    u32 got = 0;
    char byte = 0;
    EXPECT_FALSE(m_file.Read(&byte, 1, &got));
    EXPECT_EQ(m_file.Position(), platform::TrackedFile::kUnknownPosition);
    ExpectRead(0, "0123", 1);
    m_file.Forget();
    ExpectRead(4, "4567", 1);
}

TEST_F(TrackedFileTest, AReleasedFileIsClosedHere) {
    const File file = m_file.Release();
    EXPECT_FALSE(m_file.IsOpen());
    EXPECT_TRUE(file.IsOpen());
}

}  // namespace
}  // namespace k9erepl::test
