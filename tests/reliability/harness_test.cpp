// What the families stand on: the disk in memory, the images that a crash leaves, the states that
// it may show, and runs that follow from their seeds.
#include <gtest/gtest.h>

#include <array>
#include <set>
#include <string>
#include <vector>

#include "model/seed_run.h"
#include "platform/file.h"
#include "platform/file_names.h"
#include "platform/system_error.h"
#include "reliability/crash_images.h"
#include "reliability/steady_calls.h"
#include "reliability/workload.h"

namespace k9erepl::reliability {

namespace {

using platform::File;
using platform::FileDisposition;
using platform::SystemErrorKind;

// --- The disk in memory behaves like a POSIX file system, as far as storages need one.

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

std::string TextOf(const DiskImage& image, const char* name) {
    const FileBytes* bytes = image.Find(Path(name));
    return bytes == nullptr ? "none" : bytes->Whole();
}

TEST(MemoryDisk, ReadsZerosInGapsAndBehindAnEndThatWasSet) {
    const MemoryDisk disk;
    File file = Created("a", "one");
    u32 count = 0;
    EXPECT_TRUE(file.Seek(5) && file.Write("two", 3, &count));
    EXPECT_EQ(TextOf(disk.Image(), "a"), std::string("one\0\0two", 8));
    EXPECT_TRUE(file.SetEnd(2) && file.SetEnd(4));
    EXPECT_EQ(TextOf(disk.Image(), "a"), std::string("on\0\0", 4));
}

// A file is kept as pages of 4 KiB, unless they are zero.
TEST(MemoryDisk, KeepsWhatLiesBehindHolesAndCrossesPages) {
    constexpr i64 kBorder = 4 * 1024 * 1024;
    constexpr i64 kFar = (i64{1} << 33) - 2;  // the end of a page
    const MemoryDisk disk;
    File file = Created("a");
    u32 count = 0;
    EXPECT_TRUE(file.Seek(kBorder - 2) && file.Write("near", 4, &count));
    EXPECT_TRUE(file.Seek(kFar) && file.Write("far", 3, &count));
    EXPECT_TRUE(file.SetEnd(kFar + 2) && file.SetEnd(kFar + 5));
    std::array<char, 20> read{};
    EXPECT_TRUE(file.Seek(kFar - 1) && file.Read(read.data(), 20, &count));
    EXPECT_EQ(std::string(read.data(), count), std::string("\0fa\0\0\0", 6));
    EXPECT_TRUE(file.Seek(kBorder - 3) && file.Read(read.data(), 6, &count));
    EXPECT_EQ(std::string(read.data(), count), std::string("\0near\0", 6));
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
    EXPECT_TRUE(platform::LinkFile(Path("a"), Path("c")) && platform::RemoveFile(Path("a")));
    u32 put = 0;
    EXPECT_TRUE(file.Write("er", 2, &put));
    EXPECT_EQ(TextOf(disk.Image(), "c"), "older");
    EXPECT_TRUE(other.Open(Path("c").c_str(), {.disposition = FileDisposition::kCreateAlways}));
    EXPECT_EQ(TextOf(disk.Image(), "c"), "");
}

TEST(MemoryDisk, KeepsAnOpenFileWhoseNameIsGivenToAnother) {
    const MemoryDisk disk;
    File old = Created("a", "old");
    const File fresh = Created("b", "new");
    EXPECT_TRUE(platform::MoveFileReplacing(Path("b"), Path("a")));
    u32 put = 0;
    EXPECT_TRUE(old.Write("!", 1, &put));
    EXPECT_EQ(TextOf(disk.Image(), "a"), "new");
    EXPECT_EQ(TextOf(disk.Image(), "b"), "none");
    i64 size = 0;
    EXPECT_TRUE(old.GetSize(&size));
    EXPECT_EQ(size, 4);
}

TEST(MemoryDisk, RecordsChangesFromWhichItsImageIsMadeAgain) {
    MemoryDisk disk;
    disk.StartRecording();
    DiskImage before;
    {
        File file = Created("a", "abc");
        before = disk.Image();
        EXPECT_TRUE(file.SetEnd(2) && file.FlushToDisk());
        EXPECT_TRUE(platform::LinkFile(Path("a"), Path("b")));
        EXPECT_TRUE(platform::MoveFileReplacing(Path("a"), Path("c")));
        EXPECT_TRUE(platform::FlushParentDirectory(Path("c")));
    }
    std::vector<ChangeKind> kinds;
    DiskImage image;
    for (const Change& change : disk.TakeChanges()) {
        kinds.push_back(change.kind);
        image.Apply(change);
    }
    EXPECT_EQ(kinds, (std::vector{ChangeKind::kCreate, ChangeKind::kWrite, ChangeKind::kSetEnd,
                                  ChangeKind::kFlush, ChangeKind::kLink, ChangeKind::kRename,
                                  ChangeKind::kFlushDirectory}));
    EXPECT_EQ(image.Hash(), disk.Image().Hash());
    EXPECT_EQ(TextOf(image, "c"), "ab");
    EXPECT_EQ(TextOf(before, "a"), "abc") << "an image that was taken before";
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
    EXPECT_EQ(TextOf(disk.Image(), "a"), "ab");
}

TEST(MemoryDisk, TakesWhatFitsWhenItIsFull) {
    MemoryDisk disk;
    File file = Created("a");
    disk.SetCapacity(10, false);
    u32 put = 0;
    EXPECT_FALSE(file.Write("0123456789abcdef", 16, &put));
    EXPECT_EQ(put, 10U);
    EXPECT_EQ(disk.FullCount(), 2U);
    EXPECT_TRUE(file.SetEnd(20)) << "only sized ahead";
    EXPECT_EQ(disk.UsedBytes(false), 10);
    EXPECT_EQ(disk.UsedBytes(true), 20);
    disk.SetCapacity(20, true);
    EXPECT_FALSE(file.SetEnd(21));
    EXPECT_TRUE(file.SetEnd(5) && file.Seek(5) && file.Write("0123456789abcde", 15, &put));
    EXPECT_EQ(disk.FullCount(), 1U);
}

// --- Crash images

Change Write(FileNumber file, i64 at, const std::string& bytes) {
    return {
        .kind = ChangeKind::kWrite, .file = file, .at = at, .bytes = bytes, .name = {}, .to = {}};
}
Change Of(ChangeKind kind, FileNumber file, const std::string& name = "",
          const std::string& to = "") {
    return {.kind = kind, .file = file, .at = 0, .bytes = {}, .name = name, .to = to};
}

DiskImage OneFile(std::size_t size) {
    FileBytes bytes;
    bytes.Write(0, std::string(size, 'o').data(), static_cast<u32>(size));
    DiskImage image;
    image.Put("a", bytes);
    return image;
}

TEST(CrashPoints, CutAppendedBytesEverywhereAndTheBeginningAtSectorsOnly) {
    const auto cutsOf = [](const Change& write) {
        std::set<u32> cuts;
        for (const CrashPoint& point : CrashPointsOf({write}, 10000, 1)) {
            cuts.insert(point.cut);
        }
        return cuts;
    };
    EXPECT_EQ(cutsOf(Write(1, 2000, "abcd")), (std::set<u32>{0, 1, 2, 3}));
    EXPECT_EQ(cutsOf(Write(1, 0, std::string(1064, 'n'))), (std::set<u32>{0, 512, 1024}));
}

using NameSet = std::set<std::string>;

NameSet Left(const PowerCut& cut, PageFate fate) {
    NameSet left;
    for (u64 seed = 0; seed < 64; ++seed) {
        model::Random random(seed);
        const DiskImage image = cut.Leave(fate, random);
        std::string text;
        for (const auto& [name, file] : image.AllNames()) {
            const std::string bytes = image.At(file).Whole();
            text += name + ":" + std::to_string(bytes.size());
            for (std::size_t page = 0; page < bytes.size(); page += 4096) {
                text += bytes[page] == '\0' ? '-' : bytes[page];
            }
        }
        left.insert(text);
    }
    return left;
}

TEST(PowerCut, TakesPagesBackThatWereNotFlushed) {
    PowerCut cut(OneFile(8192));
    cut.Do(Write(1, 0, std::string(8192, 'n')));
    EXPECT_EQ(Left(cut, PageFate::kNothingSurvives), NameSet({"a:8192oo"}));
    EXPECT_EQ(Left(cut, PageFate::kEverythingSurvives), NameSet({"a:8192nn"}));
    EXPECT_EQ(Left(cut, PageFate::kOldOrNew),
              NameSet({"a:8192nn", "a:8192no", "a:8192on", "a:8192oo"}));
    EXPECT_EQ(Left(cut, PageFate::kOneIsLost), NameSet({"a:8192on", "a:8192no", "a:8192nn"}));
    cut.Do(Of(ChangeKind::kFlush, 1));
    EXPECT_EQ(Left(cut, PageFate::kNothingSurvives), NameSet({"a:8192nn"}));
}

TEST(PowerCut, LeavesAppendedPagesAsZerosOrNotAtAll) {
    PowerCut cut(OneFile(4096));
    cut.Do(Write(1, 4096, std::string(4096, 'n')));
    EXPECT_EQ(Left(cut, PageFate::kOldOrNew), NameSet({"a:4096o", "a:8192o-", "a:8192on"}));
}

TEST(PowerCut, TakesNamesBackUntilTheDirectoryIsFlushed) {
    PowerCut cut(OneFile(4096));
    cut.Do(Of(ChangeKind::kCreate, 2, "b"));
    cut.Do(Write(2, 0, "new"));
    cut.Do(Of(ChangeKind::kFlush, 2));
    cut.Do(Of(ChangeKind::kRename, 2, "b", "a"));
    EXPECT_EQ(Left(cut, PageFate::kOldOrNew), NameSet({"a:4096o", "a:4096ob:3n", "a:3n"}));
    cut.Do(Of(ChangeKind::kFlushDirectory, 0));
    EXPECT_EQ(Left(cut, PageFate::kOldOrNew), NameSet({"a:3n"}));
}

// --- States and runs

TEST(History, AllowsWhatAnOperationBeganOnlyWhileItRuns) {
    using Range = std::pair<std::size_t, std::size_t>;
    History history;
    history.states.resize(3);
    history.marks = {{0, 0, 0, 0}, {2, 1, 1, 0}, {5, 2, 2, 2}};
    const auto range = [&](std::size_t at, bool part) {
        const StateRange states = history.AfterKill(at, part);
        return Range(states.low, states.high);
    };
    EXPECT_EQ(range(0, false), Range(0, 0));
    EXPECT_EQ(range(0, true), Range(0, 1));
    EXPECT_EQ(range(1, false), Range(0, 1));
    EXPECT_EQ(range(2, false), Range(1, 1));
    EXPECT_EQ(range(4, true), Range(1, 2));
    EXPECT_EQ(range(5, false), Range(2, 2));
    EXPECT_EQ(history.AfterPowerCut(4).low, 0UL);
    EXPECT_EQ(history.AfterPowerCut(5).low, 2UL);
}

std::string ChangesOf(u64 seed) {
    const SteadyCalls steady;
    MemoryDisk disk;
    const History history = MakeHistory(disk, {.moreSettings = ""}, seed);
    EXPECT_EQ(history.problem, "");
    EXPECT_EQ(disk.OpenFiles(), 0U);
    std::string text;
    for (const Change& change : history.changes) {
        text += Describe(change) + " " +
                std::to_string(HashOf(change.bytes.data(), change.bytes.size())) + "\n";
    }
    return text;
}

// With the synchronous writer: what the other one gathers into one write depends on when it wakes.
TEST(Workload, DoesTheSameAgainForASeed) {
    model::KeepQuiet();
    for (u64 seed = 0; seed < 20; ++seed) {
        const std::string changes = ChangesOf(seed);
        EXPECT_NE(changes, "");
        EXPECT_EQ(ChangesOf(seed), changes) << "seed " << seed;
    }
}

}  // namespace

}  // namespace k9erepl::reliability
