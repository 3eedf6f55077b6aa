// When a file that knows its pointer's place asks the system to move it.
#include "platform/tracked_file.h"

#include <string>
#include <utility>

#include "files_fixture.h"

namespace k9erepl::test {
namespace {

class TrackedFileTest : public FilesFixture {
  protected:
    TrackedFileTest() {
        WriteText(PathOf("a"), "0123456789");
        File file;
        EXPECT_TRUE(Open(file, "a", {.access = FileAccess::kRead}));
        m_file = TrackedFile(std::move(file), 0);
    }

    using TrackedFile = platform::TrackedFile;

    std::string Read(u32 size) {
        std::string text(size, '?');
        u32 got = 0;
        EXPECT_TRUE(m_file.Read(text.data(), size, &got));
        text.resize(got);
        return text;
    }
    bool ReadFails() {
        u32 got = 0;
        char byte = 0;
        return !m_file.Read(&byte, 1, &got);
    }
    static u32 Seeks() { return CallCount(SystemCall::kSeek); }

    ScopedSystemCalls m_systemCalls;
    TrackedFile m_file;
};

TEST_F(TrackedFileTest, ReadingOnNeedsNoSeek) {
    EXPECT_TRUE(m_file.Seek(0));
    EXPECT_EQ(Read(4), "0123");
    EXPECT_TRUE(m_file.Seek(4));
    EXPECT_EQ(Read(4), "4567");
    EXPECT_EQ(Seeks(), 0U);
    EXPECT_EQ(m_file.Position(), 8);
}

TEST_F(TrackedFileTest, AnotherPlaceNeedsOne) {
    EXPECT_TRUE(m_file.Seek(6));
    EXPECT_EQ(Read(1), "6");
    EXPECT_EQ(Seeks(), 1U);
    EXPECT_EQ(m_file.Position(), 7);
}

TEST_F(TrackedFileTest, AReadPastTheEndCountsWhatItGot) {
    EXPECT_TRUE(m_file.Seek(8));
    EXPECT_EQ(Read(5), "89");
    EXPECT_EQ(m_file.Position(), 10);
}

TEST_F(TrackedFileTest, AFailedSeekLeavesThePosition) {
    EXPECT_EQ(Read(2), "01");
    FailSeek(1);
    EXPECT_FALSE(m_file.Seek(6));
    EXPECT_EQ(m_file.Position(), 2);
    EXPECT_EQ(Read(2), "23");
}

TEST_F(TrackedFileTest, BehindAFailedReadEverySeekAsksTheSystem) {
    FailRead(1);
    EXPECT_TRUE(ReadFails());
    EXPECT_EQ(m_file.Position(), TrackedFile::kUnknownPosition);
    EXPECT_TRUE(m_file.Seek(0));
    EXPECT_EQ(Read(2), "01");
    EXPECT_EQ(Seeks(), 1U);
}

TEST_F(TrackedFileTest, AForgottenPositionIsSoughtAgain) {
    m_file.Forget();
    EXPECT_TRUE(m_file.Seek(0));
    EXPECT_EQ(Seeks(), 1U);
}

TEST_F(TrackedFileTest, AReleasedFileIsClosedHere) {
    File file = m_file.Release();
    EXPECT_FALSE(m_file.IsOpen());
    EXPECT_TRUE(file.IsOpen());
}

}  // namespace
}  // namespace k9erepl::test
