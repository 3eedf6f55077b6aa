// Which images a crash leaves, and which states they may show.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "reliability/crash_points.h"
#include "reliability/history.h"
#include "reliability/power_cut.h"

namespace k9erepl::reliability {

namespace {

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

// --- Killed processes

TEST(CrashPoints, CutAppendedBytesEverywhere) {
    const Changes changes = {Write(1, 2000, "abcd")};
    std::vector<std::string> left;
    ImageMaker maker(OneFile(0), changes);
    for (const CrashPoint& point : CrashPointsOf(changes, 100, 1)) {
        left.push_back(maker.At(point).Find("a")->Whole().substr(point.cut > 0 ? 2000 : 0));
    }
    left.back() = left.back().substr(2000);
    EXPECT_EQ(left, (std::vector<std::string>{"", "a", "ab", "abc", "abcd"}));
}

TEST(CrashPoints, CutTheBeginningOfAStorageFileAtSectorsOnly) {
    const Changes changes = {Write(1, 0, std::string(1064, 'n'))};
    std::set<u32> cuts;
    for (const CrashPoint& point : CrashPointsOf(changes, 10000, 1)) {
        cuts.insert(point.cut);
    }
    EXPECT_EQ(cuts, (std::set<u32>{0, 512, 1024}));
}

// --- Power cuts

std::set<std::string> Left(const PowerCut& cut, PageFate fate) {
    std::set<std::string> left;
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
    using Set = std::set<std::string>;
    EXPECT_EQ(Left(cut, PageFate::kNothingSurvives), Set({"a:8192oo"}));
    EXPECT_EQ(Left(cut, PageFate::kEverythingSurvives), Set({"a:8192nn"}));
    EXPECT_EQ(Left(cut, PageFate::kOldOrNew),
              Set({"a:8192nn", "a:8192no", "a:8192on", "a:8192oo"}));
    EXPECT_EQ(Left(cut, PageFate::kOneIsLost), Set({"a:8192on", "a:8192no", "a:8192nn"}));
    cut.Do(Of(ChangeKind::kFlush, 1));
    EXPECT_EQ(Left(cut, PageFate::kNothingSurvives), Set({"a:8192nn"}));
}

TEST(PowerCut, LeavesAppendedPagesAsZerosOrNotAtAll) {
    PowerCut cut(OneFile(4096));
    cut.Do(Write(1, 4096, std::string(4096, 'n')));
    EXPECT_EQ(Left(cut, PageFate::kOldOrNew),
              (std::set<std::string>{"a:4096o", "a:8192o-", "a:8192on"}));
}

TEST(PowerCut, TakesNamesBackUntilTheDirectoryIsFlushed) {
    PowerCut cut(OneFile(4096));
    cut.Do(Of(ChangeKind::kCreate, 2, "b"));
    cut.Do(Write(2, 0, "new"));
    cut.Do(Of(ChangeKind::kFlush, 2));
    cut.Do(Of(ChangeKind::kRename, 2, "b", "a"));
    using Set = std::set<std::string>;
    EXPECT_EQ(Left(cut, PageFate::kOldOrNew), Set({"a:4096o", "a:4096ob:3n", "a:3n"}));
    cut.Do(Of(ChangeKind::kFlushDirectory, 0));
    EXPECT_EQ(Left(cut, PageFate::kOldOrNew), Set({"a:3n"}));
}

// --- States

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

}  // namespace

}  // namespace k9erepl::reliability
