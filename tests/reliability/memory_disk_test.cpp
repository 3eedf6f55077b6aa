// The disk in memory behaves like a POSIX file system, as far as storages need one.
#include "reliability/memory_disk.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <vector>

#include "platform/file.h"
#include "platform/file_names.h"
#include "platform/system_error.h"

namespace k9erepl::reliability {

namespace {

using platform::File;
using platform::FileDisposition;
using platform::SystemErrorKind;

std::string Path(const char* name) {
    return std::string(kFolder) + name;
}

File Created(const char* name, const std::string& text = "") {
    File file;
    EXPECT_TRUE(file.Open(Path(name).c_str(), {.disposition = FileDisposition::kCreateNew}));
    u32 put = 0;
    EXPECT_TRUE(file.Write(text.data(), static_cast<u32>(text.size()), &put));
    return file;
}

std::string TextOf(const MemoryDisk& disk, const char* name) {
    const DiskImage image = disk.Image();
    const FileBytes* bytes = image.Find(Path(name));
    return bytes == nullptr ? "none" : bytes->Whole();
}

TEST(MemoryDisk, KeepsWhatIsWrittenAndReadsZerosInGaps) {
    const MemoryDisk disk;
    File file = Created("a", "one");
    u32 count = 0;
    EXPECT_TRUE(file.Seek(5) && file.Write("two", 3, &count));
    EXPECT_EQ(TextOf(disk, "a"), std::string("one\0\0two", 8));
    std::array<char, 20> read{};
    EXPECT_TRUE(file.Seek(2) && file.Read(read.data(), 20, &count));
    EXPECT_EQ(std::string(read.data(), count), std::string("e\0\0two", 6));
}

// Beyond 4 MiB a file is kept as pages of 4 KiB, unless they are zero.
TEST(MemoryDisk, KeepsWhatLiesBehindHoles) {
    constexpr i64 kFar = (i64{1} << 33) - 2;  // the end of a page
    const MemoryDisk disk;
    File file = Created("a");
    u32 count = 0;
    EXPECT_TRUE(file.Seek(kFar) && file.Write("far", 3, &count));
    EXPECT_TRUE(file.SetEnd(kFar + 2) && file.SetEnd(kFar + 5));
    std::array<char, 20> read{};
    EXPECT_TRUE(file.Seek(kFar - 1) && file.Read(read.data(), 20, &count));
    EXPECT_EQ(std::string(read.data(), count), std::string("\0fa\0\0\0", 6));
}

TEST(MemoryDisk, KeepsWhatCrossesIntoItsFarPart) {
    constexpr i64 kBorder = 4 * 1024 * 1024;
    const MemoryDisk disk;
    File file = Created("a");
    u32 count = 0;
    EXPECT_TRUE(file.Seek(kBorder - 2) && file.Write("near", 4, &count));
    const std::string text = TextOf(disk, "a");
    EXPECT_EQ(text.size(), std::size_t{kBorder + 2});
    EXPECT_EQ(text.substr(kBorder - 3), std::string("\0near", 5));
}

TEST(MemoryDisk, ForgetsBytesBehindAnEndThatWasSet) {
    const MemoryDisk disk;
    File file = Created("a", "abcdef");
    EXPECT_TRUE(file.SetEnd(2) && file.SetEnd(4));
    EXPECT_EQ(TextOf(disk, "a"), std::string("ab\0\0", 4));
}

TEST(MemoryDisk, AnswersForNamesLikeAFileSystem) {
    const MemoryDisk disk;
    File file = Created("a", "old");
    File other;
    EXPECT_FALSE(other.Open(Path("b").c_str(), {}));
    EXPECT_TRUE(platform::LastSystemErrorIs(SystemErrorKind::kNotFound));
    EXPECT_FALSE(other.Open(Path("a").c_str(), {.disposition = FileDisposition::kCreateNew}));
    EXPECT_TRUE(platform::LastSystemErrorIs(SystemErrorKind::kAlreadyExists));
    EXPECT_FALSE(platform::LinkFile(Path("a"), Path("a")));
    EXPECT_TRUE(platform::LastSystemErrorIs(SystemErrorKind::kAlreadyExists));
    EXPECT_TRUE(other.Open(Path("a").c_str(), {.disposition = FileDisposition::kCreateAlways}));
    EXPECT_EQ(TextOf(disk, "a"), "");
}

TEST(MemoryDisk, KeepsAnOpenFileWhoseNameIsGivenToAnother) {
    const MemoryDisk disk;
    File old = Created("a", "old");
    const File fresh = Created("b", "new");
    EXPECT_TRUE(platform::MoveFileReplacing(Path("b"), Path("a")));
    u32 put = 0;
    EXPECT_TRUE(old.Write("!", 1, &put));
    EXPECT_EQ(TextOf(disk, "a"), "new");
    EXPECT_EQ(TextOf(disk, "b"), "none");
    i64 size = 0;
    EXPECT_TRUE(old.GetSize(&size));
    EXPECT_EQ(size, 4);
}

TEST(MemoryDisk, ShowsAChangeUnderBothNamesOfAFile) {
    const MemoryDisk disk;
    File file = Created("a", "x");
    EXPECT_TRUE(platform::LinkFile(Path("a"), Path("b")));
    u32 put = 0;
    EXPECT_TRUE(file.Write("y", 1, &put));
    EXPECT_EQ(TextOf(disk, "b"), "xy");
    EXPECT_TRUE(platform::RemoveFile(Path("a")));
    EXPECT_EQ(TextOf(disk, "b"), "xy");
}

TEST(MemoryDisk, RecordsChangesFromWhichItsImageIsMadeAgain) {
    MemoryDisk disk;
    disk.StartRecording();
    {
        File file = Created("a", "abc");
        EXPECT_TRUE(file.SetEnd(2) && file.FlushToDisk());
        EXPECT_TRUE(platform::LinkFile(Path("a"), Path("b")));
        EXPECT_TRUE(platform::MoveFileReplacing(Path("a"), Path("c")));
        EXPECT_TRUE(platform::FlushParentDirectory(Path("c")));
    }
    const Changes changes = disk.TakeChanges();
    std::vector<ChangeKind> kinds;
    DiskImage image;
    for (const Change& change : changes) {
        kinds.push_back(change.kind);
        image.Apply(change);
    }
    EXPECT_EQ(kinds, (std::vector{ChangeKind::kCreate, ChangeKind::kWrite, ChangeKind::kSetEnd,
                                  ChangeKind::kFlush, ChangeKind::kLink, ChangeKind::kRename,
                                  ChangeKind::kFlushDirectory}));
    EXPECT_EQ(image.Hash(), disk.Image().Hash());
    EXPECT_EQ(image.Find(Path("c"))->Whole(), "ab");
}

TEST(MemoryDisk, LeavesImagesAloneThatWereTakenBefore) {
    const MemoryDisk disk;
    File file = Created("a", "x");
    const DiskImage before = disk.Image();
    u32 put = 0;
    EXPECT_TRUE(file.Write("y", 1, &put));
    EXPECT_EQ(before.Find(Path("a"))->Whole(), "x");
    EXPECT_NE(before.Hash(), disk.Image().Hash());
}

TEST(MemoryDisk, LetsTheGateRefuseAndShortenCalls) {
    MemoryDisk disk;
    File file = Created("a");
    disk.SetGate([](const Attempt& attempt) -> Permit {
        if (attempt.call == test::SystemCall::kWrite && attempt.at == 0) {
            return {.error = std::nullopt, .sizeMax = 2};
        }
        return {.error = SystemErrorKind::kNoSpace};
    });
    u32 put = 0;
    EXPECT_FALSE(file.Write("abc", 3, &put));
    EXPECT_TRUE(platform::LastSystemErrorIs(SystemErrorKind::kNoSpace));
    EXPECT_EQ(put, 2U);
    EXPECT_FALSE(file.FlushToDisk());
    disk.SetGate(nullptr);
    EXPECT_EQ(TextOf(disk, "a"), "ab");
}

}  // namespace

}  // namespace k9erepl::reliability
