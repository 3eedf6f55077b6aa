// A process ends right before, in the middle of and right after every system call with which a
// squeeze, a truncation or a clear changes something: the storage opens again with the content of
// before or of after, nothing that was committed is lost, and what lies about is known.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <set>
#include <string_view>

#include "crash/removal.h"
#include "platform/system_error.h"
#include "support/file_bytes.h"
#include "support/writer_mode.h"

namespace k9erepl::test {

namespace {

struct Scene {
    Removal removal;
    Sizes sizes;
    bool forceFlush;
};

// Under all settings, or under two in which each setting is different.
enum class Settings { kAll, kTwo };

std::vector<Scene> ScenesOf(std::initializer_list<Removal> removals, Settings settings) {
    std::vector<Scene> scenes;
    for (const Removal& removal : removals) {
        scenes.push_back({removal, kExact, true});
        scenes.push_back({removal, kAhead, false});
        if (settings == Settings::kAll) {
            scenes.push_back({removal, kExact, false});
            scenes.push_back({removal, kAhead, true});
        }
    }
    return scenes;
}

std::string NameOfScene(const ::testing::TestParamInfo<Scene>& info) {
    const Scene& scene = info.param;
    return std::string(scene.removal.name) + scene.sizes.name +
           (scene.forceFlush ? "Forced" : "Unforced");
}

class RemovalTest : public ::testing::TestWithParam<Scene> {
  protected:
    // Crash points are counted over all threads.
    void SetUp() override {
        if (std::string_view(TheRemoval().name).starts_with("Clear")) {
            SKIP_WHEN_ASYNC("the index thread and the closing client write side by side");
        }
    }
    const Removal& TheRemoval() const { return GetParam().removal; }

    // Crashes at every point, one after the other, and lets `check` look at what is left, unless it
    // was just the same, bit by bit, at a point before.
    template <typename Check>
    void AtEveryPoint(Check check) {
        m_trace = m_stage.Run();
        ASSERT_FALSE(m_trace.empty());
        std::set<std::size_t> checked;
        for (const CrashPoint& point : CrashPointsOf(m_trace)) {
            SCOPED_TRACE(NameOf(m_trace, point));
            ASSERT_TRUE(m_stage.CrashAt(point));
            if (checked.insert(std::hash<std::string>()(m_stage.State())).second) {
                check(point);
            }
        }
    }

    bool Done(const char* text, const CrashPoint& point) const {
        return IsDone(m_trace, text, point);
    }
    bool IsReplaced(const CrashPoint& point) const {
        return Done("Rename temporary to storage", point);
    }
    bool IsBackedUp(const CrashPoint& point) const {
        return Done(TheRemoval().hardLinks ? "Link storage as backup" : "Rename storage to backup",
                    point);
    }
    bool HasTemporary(const CrashPoint& point) const {
        return Done("Create temporary", point) && !IsReplaced(point);
    }
    bool HasOlderBackup(const CrashPoint& point) const {
        return TheRemoval().olderBackup && !Done("Remove backup", point);
    }
    bool IsPathFree(const CrashPoint& point) const {
        return !TheRemoval().hardLinks && IsBackedUp(point) && !IsReplaced(point);
    }

    Content ContentAt(const CrashPoint& point) const;
    Strings FilesAt(const CrashPoint& point) const;

    // What a user does who finds the backup and no storage.
    void MoveBackupBackIfPathIsFree() const {
        if (!Exists(m_stage.Path())) {
            std::filesystem::rename(m_stage.Backup(), m_stage.Path());
        }
    }

    RemovalStage m_stage{GetParam().removal, GetParam().sizes, GetParam().forceFlush};
    Trace m_trace;
};

// A squeeze writes its clear revision first, and a backup is made without it.
Content RemovalTest::ContentAt(const CrashPoint& point) const {
    const bool isUndone =
        TheRemoval().KeepsBackup() && Done("SetEnd storage", point) && !IsReplaced(point);
    if (Done("Write storage", point) && !isUndone) {
        return m_stage.New();
    }
    Content content = m_stage.Old();
    if (TheRemoval().kind == RemovalKind::kTruncate && point.moment == Moment::kWithin &&
        m_trace.at(point.call).text == "Write storage") {
        // The header's half of the bytes: its fields go, the records stay.
        content.lifenum = 0;
        content.mark = 0;
    }
    return content;
}

Strings RemovalTest::FilesAt(const CrashPoint& point) const {
    Strings files = {"storage.edb-idx"};
    if (!IsPathFree(point)) {
        files.emplace_back("storage.edb");
    }
    if (HasTemporary(point)) {
        files.emplace_back("storage.edb.temporary");
    }
    if (IsBackedUp(point) || HasOlderBackup(point)) {
        files.emplace_back("storage.edb.backup");
    }
    if (TheRemoval().olderBackup && !Done("Remove backup-index", point)) {
        files.emplace_back("storage.edb.backup-idx");
    }
    std::sort(files.begin(), files.end());
    return files;
}

// --- Everything

using AnyRemoval = RemovalTest;

TEST_P(AnyRemoval, MakesTheOldContentTheNewOne) {
    EXPECT_EQ(m_stage.Look(), m_stage.Old());
    EXPECT_FALSE(m_stage.Run().empty());
    EXPECT_EQ(m_stage.Look(), m_stage.New());
}

TEST_P(AnyRemoval, LeavesKnownFilesAndTheOldOrTheNewContentWhereverItEnds) {
    AtEveryPoint([this](const CrashPoint& point) {
        EXPECT_EQ(m_stage.Files(), FilesAt(point));
        MoveBackupBackIfPathIsFree();
        const Content content = ContentAt(point);
        EXPECT_EQ(m_stage.Look(), content);
        EXPECT_EQ(m_stage.Look(), content) << "the second time";
        const Content appended = m_stage.Append(content);
        EXPECT_EQ(m_stage.Look(), appended);
    });
}

INSTANTIATE_TEST_SUITE_P(Crash, AnyRemoval,
                         ::testing::ValuesIn(ScenesOf(
                             {kSqueeze, kSqueezeOfCleared, kBackup, kBackupOverOlder, kMovedBackup,
                              kMovedBackupOverOlder, kTruncate, kClearAll, kClearLogically},
                             Settings::kAll)),
                         NameOfScene);

// --- The next squeeze

using AnySqueeze = RemovalTest;

TEST_P(AnySqueeze, CanBeRepeatedOnceTheTemporaryFileIsDeleted) {
    AtEveryPoint([this](const CrashPoint& point) {
        MoveBackupBackIfPathIsFree();
        if (HasTemporary(point)) {
            EXPECT_EQ(m_stage.RemoveAgain(), RC_SYSTEM_ERROR);
            std::filesystem::remove(m_stage.Temporary());
        }
        const Content before = m_stage.Look();
        EXPECT_EQ(m_stage.RemoveAgain(), RC_OK);
        EXPECT_EQ(m_stage.Look(), m_stage.New());
        EXPECT_FALSE(Exists(m_stage.Temporary()));
        if (TheRemoval().KeepsBackup()) {
            EXPECT_EQ(m_stage.LookAt(m_stage.Backup()), IsReplaced(point) ? m_stage.Old() : before);
        }
    });
}

INSTANTIATE_TEST_SUITE_P(Crash, AnySqueeze,
                         ::testing::ValuesIn(ScenesOf({kSqueeze, kSqueezeOfCleared, kBackup,
                                                       kBackupOverOlder, kMovedBackup,
                                                       kMovedBackupOverOlder},
                                                      Settings::kTwo)),
                         NameOfScene);

// --- The backup

using AnyBackup = RemovalTest;

TEST_P(AnyBackup, IsWholeBeforeTheStorageIsReplaced) {
    AtEveryPoint([this](const CrashPoint& point) {
        EXPECT_TRUE(IsBackedUp(point) || !IsReplaced(point));
        if (IsBackedUp(point)) {
            EXPECT_EQ(m_stage.LookAt(m_stage.Backup()), m_stage.Old());
        } else if (HasOlderBackup(point)) {
            EXPECT_EQ(m_stage.LookAt(m_stage.Backup()).records, RemovalStage::OlderBackup());
        }
    });
}

INSTANTIATE_TEST_SUITE_P(Crash, AnyBackup,
                         ::testing::ValuesIn(ScenesOf({kBackup, kBackupOverOlder, kMovedBackup,
                                                       kMovedBackupOverOlder},
                                                      Settings::kTwo)),
                         NameOfScene);

// --- Single moments

Strings PointsWithoutStorage(RemovalStage& stage) {
    Strings names;
    const Trace trace = stage.Run();
    for (const CrashPoint& point : CrashPointsOf(trace)) {
        EXPECT_TRUE(stage.CrashAt(point));
        if (!Exists(stage.Path())) {
            names.push_back(NameOf(trace, point));
        }
    }
    return names;
}

CrashPoint PointAt(const Trace& trace, const std::string& text, Moment moment) {
    const auto found = std::find_if(trace.begin(), trace.end(),
                                    [&](const TracedCall& call) { return call.text == text; });
    EXPECT_NE(found, trace.end());
    return {static_cast<std::size_t>(found - trace.begin()), moment};
}

TEST(MovedBackupCrash, FindsThePathFreeInOneInstant) {
    RemovalStage stage(kMovedBackup, kExact, true);
    EXPECT_EQ(PointsWithoutStorage(stage),
              Strings({"AfterRename1 (Rename storage to backup)",
                       "BeforeRename2 (Rename temporary to storage)"}));
}

TEST(MovedBackupCrash, LosesNothingWhileThePathIsFree) {
    RemovalStage stage(kMovedBackup, kExact, true);
    const Trace trace = stage.Run();
    const CrashPoint point = PointAt(trace, "Rename storage to backup", Moment::kAfter);
    ASSERT_TRUE(stage.CrashAt(point));
    EXPECT_EQ(stage.TryOpen(), RC_SYSTEM_ERROR);
    EXPECT_FALSE(Exists(stage.Path())) << "an empty storage would hide the loss";
    EXPECT_EQ(stage.LookAt(stage.Backup()), stage.Old());
    EXPECT_EQ(stage.LookAt(stage.Temporary()), stage.New());
}

TEST(LinkedBackupCrash, NeverFindsThePathFree) {
    RemovalStage stage(kBackupOverOlder, kExact, true);
    EXPECT_EQ(PointsWithoutStorage(stage), Strings());
}

TEST(SqueezeCrash, MakesTheNextSqueezeNameTheTemporaryFile) {
    RemovalStage stage(kSqueeze, kExact, true);
    const Trace trace = stage.Run();
    const CrashPoint point = PointAt(trace, "Create temporary", Moment::kAfter);
    ASSERT_TRUE(stage.CrashAt(point));
    std::vector<LoggedMessage> messages;
    EXPECT_EQ(stage.RemoveAgain(&messages), RC_SYSTEM_ERROR);
    const platform::SystemError exists =
        platform::SystemErrorOf(platform::SystemErrorKind::kAlreadyExists);
    const LoggedMessage expected = {K9SYS_LOG_ERROR, "k9eRepl-storage",
                                    "Cannot create temporary file '" + stage.Temporary() +
                                        "';sys-err " + std::to_string(exists),
                                    RC_SYSTEM_ERROR};
    EXPECT_EQ(std::count(messages.begin(), messages.end(), expected), 1);
}

}  // namespace

}  // namespace k9erepl::test
