// What an open file does when system calls are interrupted, stay short or fail.
#include <functional>

#include "files_fixture.h"

namespace k9erepl::test {
namespace {

class FileFaults : public FilesFixture {
  protected:
    FileFaults() {
        WriteText(PathOf("a"), "0123456789");
        EXPECT_TRUE(Open(m_file, "a"));
    }

    ScopedSystemCalls m_systemCalls;
    File m_file;
};

TEST_F(FileFaults, AReadGivenInTwoPartsIsCompleted) {
    SplitRead(1, 4);
    EXPECT_EQ(Read(m_file, 8), "01234567");
    EXPECT_EQ(CallCount(SystemCall::kRead), 2U);
}

TEST_F(FileFaults, AReadThatStaysShortReportsWhatItGot) {
    ShortRead(1, 4);
    char bytes[8];
    u32 got = 0;
    EXPECT_TRUE(m_file.Read(bytes, sizeof bytes, &got));
    EXPECT_EQ(got, 4U);
}

TEST_F(FileFaults, AReadThatFailsLaterReportsWhatItGotBefore) {
    SplitRead(1, 4);
    FailRead(2);
    char bytes[8];
    u32 got = 0;
    EXPECT_FALSE(m_file.Read(bytes, sizeof bytes, &got));
    EXPECT_EQ(got, 4U);
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
}

TEST_F(FileFaults, AWriteThatTakesNothingFailsForLackOfSpace) {
    platform::TheSystemCalls().writeFile = [](platform::NativeFile, const void*, u32) {
        return i64{0};
    };
    u32 put = 7;
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
    const auto descriptor = reinterpret_cast<platform::NativeFile>(m_file.Native());
    m_file.Close();
    EXPECT_EQ(CallCount(SystemCall::kClose), 1U);
    EXPECT_FALSE(m_file.IsOpen());
    platform::NativeSystemCalls().closeFile(descriptor);  // the injected failure kept it open
}

// One operation, by the system call that it makes.
struct Operation {
    const char* name;
    SystemCall call;
    std::function<bool(platform::File&, const std::string& path)> run;
};

void PrintTo(const Operation& operation, std::ostream* out) {
    *out << operation.name;
}

class EveryFileOperation : public FileFaults, public ::testing::WithParamInterface<Operation> {
  protected:
    bool Run() { return GetParam().run(m_file, PathOf("a")); }
};

TEST_P(EveryFileOperation, IsRepeatedWhenInterrupted) {
    Fail(GetParam().call, 1, SystemErrorKind::kInterrupted);
    const u32 before = CallCount(GetParam().call);
    EXPECT_TRUE(Run());
    EXPECT_EQ(CallCount(GetParam().call), before + 2);
}

TEST_P(EveryFileOperation, FailsOnceWithTheSystemsError) {
    Fail(GetParam().call, 1, SystemErrorKind::kInputOutput);
    const u32 before = CallCount(GetParam().call);
    EXPECT_FALSE(Run());
    EXPECT_TRUE(LastErrorIs(SystemErrorKind::kInputOutput));
    EXPECT_EQ(CallCount(GetParam().call), before + 1);
}

const Operation kOperations[] = {
    {"Open", SystemCall::kOpen,
     [](platform::File& file, const std::string& path) { return file.Open(path.c_str(), {}); }},
    {"Read", SystemCall::kRead,
     [](platform::File& file, const std::string&) {
         char bytes[4];
         u32 got = 0;
         return file.Read(bytes, sizeof bytes, &got);
     }},
    {"Write", SystemCall::kWrite,
     [](platform::File& file, const std::string&) {
         u32 put = 0;
         return file.Write("abcd", 4, &put);
     }},
    {"Seek", SystemCall::kSeek,
     [](platform::File& file, const std::string&) { return file.Seek(2); }},
    {"Tell", SystemCall::kTell,
     [](platform::File& file, const std::string&) {
         i64 position = 0;
         return file.Tell(&position);
     }},
    {"SetEnd", SystemCall::kSetEnd,
     [](platform::File& file, const std::string&) { return file.SetEnd(5); }},
    {"GetSize", SystemCall::kFileSize,
     [](platform::File& file, const std::string&) {
         i64 size = 0;
         return file.GetSize(&size);
     }},
    {"FlushToDisk", SystemCall::kFlush,
     [](platform::File& file, const std::string&) { return file.FlushToDisk(); }},
    {"TakeOwnerAndMode", SystemCall::kTakeOwnerAndMode,
     [](platform::File& file, const std::string& path) {
         return file.TakeOwnerAndMode(path.c_str());
     }},
};

INSTANTIATE_TEST_SUITE_P(All, EveryFileOperation, ::testing::ValuesIn(kOperations),
                         [](const auto& testInfo) { return testInfo.param.name; });

}  // namespace
}  // namespace k9erepl::test
