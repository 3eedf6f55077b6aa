// In which order a squeeze, a truncation and a clear change files and flush them: what a crash of
// the whole system may take back must not be needed by what it leaves.
#include <gtest/gtest.h>

#include <algorithm>

#include "crash/removal.h"
#include "support/writer_mode.h"

namespace k9erepl::test {

namespace {

Strings CallsOf(const Removal& removal, const Sizes& sizes = kExact, bool forceFlush = true) {
    RemovalStage stage(removal, sizes, forceFlush);
    return TextsOf(stage.Run());
}

// The parts of a squeeze.
const Strings kRaiseClearRev = {"Write storage", "Flush storage"};
const Strings kMakeTemporary = {"Flush storage",        // the clear revision, force_flush or not
                                "Create temporary",     // only where none stands
                                "TakeOwner temporary",  //
                                "Write temporary",      // header and first commit block
                                "Flush temporary",      //
                                "Write temporary",      // what is kept
                                "Flush temporary"};     //
const Strings kEmptyIndex = {"SetEnd index", "Write index", "Flush index"};
const Strings kCutOldFile = {"SetEnd storage", "Flush storage", "Remove backup-index"};
const Strings kReplace = {"Rename temporary to storage", "Flush directory"};
const Strings kSaveIndex = {"SetEnd index", "Write index"};

Strings Joined(std::initializer_list<Strings> parts) {
    Strings all;
    for (const Strings& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

Strings SqueezeWith(const Strings& backup) {
    return Joined({kRaiseClearRev, kMakeTemporary, kEmptyIndex, backup, kReplace, kSaveIndex});
}

// --- Exact orders

class RemovalOrder : public ::testing::Test {
  protected:
    void SetUp() override { SKIP_WHEN_ASYNC("closing flushes the storage once more"); }
};

TEST_F(RemovalOrder, OfASqueezeFlushesTheCopyAndTheEmptyIndexBeforeItsRename) {
    EXPECT_EQ(CallsOf(kSqueeze), SqueezeWith({}));
    EXPECT_EQ(CallsOf(kSqueezeOfCleared), SqueezeWith({}));
}

TEST_F(RemovalOrder, OfABackupFlushesTheCutFileBeforeItsLinkAndTheLinkBeforeTheRename) {
    EXPECT_EQ(CallsOf(kBackup), SqueezeWith(Joined({kCutOldFile,
                                                    {"Link storage as backup",  //
                                                     "Flush directory"}})));
}

TEST_F(RemovalOrder, OfABackupRemovesAnOlderOneOnlyWhenEverythingElseIsReady) {
    EXPECT_EQ(CallsOf(kBackupOverOlder), SqueezeWith(Joined({kCutOldFile,
                                                             {"Link storage as backup",  // in use
                                                              "Remove backup",           //
                                                              "Link storage as backup",  //
                                                              "Flush directory"}})));
}

TEST_F(RemovalOrder, OfABackupWithoutLinksMovesTheOldFileRightBeforeTheRename) {
    EXPECT_EQ(CallsOf(kMovedBackup), SqueezeWith(Joined({kCutOldFile,
                                                         {"Link storage as backup",  // refused
                                                          "Rename storage to backup"}})));
}

TEST_F(RemovalOrder, OfABackupWithoutLinksReplacesAnOlderOne) {
    EXPECT_EQ(CallsOf(kMovedBackupOverOlder),
              SqueezeWith(Joined({kCutOldFile,
                                  {"Link storage as backup",  // in use
                                   "Remove backup",           //
                                   "Link storage as backup",  // refused
                                   "Rename storage to backup"}})));
}

TEST_F(RemovalOrder, OfATruncationEmptiesTheIndexOnTheDiskFirst) {
    EXPECT_EQ(CallsOf(kTruncate), Joined({kEmptyIndex, {"Write storage", "Flush storage"}}));
}

TEST_F(RemovalOrder, OfAClearOfEverythingIsThatOfATruncation) {
    EXPECT_EQ(CallsOf(kClearAll), Joined({CallsOf(kTruncate), kSaveIndex}));
}

TEST_F(RemovalOrder, OfALogicalClearFlushesTheClearRevisionBeforeTheIndexSaysIt) {
    EXPECT_EQ(CallsOf(kClearLogically), Joined({kRaiseClearRev, kSaveIndex}));
}

TEST_F(RemovalOrder, SetsTheSizeOfANewBeginningBeforeItIsFlushed) {
    const Strings begun = {"Write storage", "SetEnd storage", "Flush storage"};
    EXPECT_EQ(CallsOf(kTruncate, kAhead), Joined({kEmptyIndex, begun}));
    Strings squeeze = SqueezeWith({});
    squeeze.insert(std::find(squeeze.begin(), squeeze.end(), "Flush temporary"),
                   "SetEnd temporary");
    EXPECT_EQ(CallsOf(kSqueeze, kAhead), squeeze);
}

TEST_F(RemovalOrder, WithoutForceFlushLeavesOutOnlyTheFlushBehindTheClearRevision) {
    for (const Removal& removal : {kSqueeze, kBackup, kMovedBackup, kClearLogically}) {
        Strings calls = CallsOf(removal);
        ASSERT_EQ(calls.at(1), "Flush storage");
        calls.erase(calls.begin() + 1);
        EXPECT_EQ(CallsOf(removal, kExact, false), calls) << removal.name;
    }
    for (const Removal& removal : {kTruncate, kClearAll}) {
        EXPECT_EQ(CallsOf(removal, kExact, false), CallsOf(removal)) << removal.name;
    }
}

// --- What a crash of the system could take back

Trace TraceOf(const Removal& removal) {
    RemovalStage stage(removal, kAhead, false);
    return stage.Run();
}

TEST(SystemCrash, FindsEverythingOnTheDiskWhenALinkedBackupIsMadeAndTheStorageReplaced) {
    for (const Removal& removal : {kBackup, kBackupOverOlder}) {
        const Trace trace = TraceOf(removal);
        // Names: that of the temporary file, which changes again, and of the backup's index.
        EXPECT_EQ(UnflushedBefore(trace, "Link storage as backup"), Strings({"directory"}));
        EXPECT_EQ(UnflushedBefore(trace, "Rename temporary to storage"), Strings());
        EXPECT_EQ(UnflushedAtTheEnd(trace), Strings({"index"}));
    }
}

TEST(SystemCrash, FindsAllBytesOnTheDiskWhenAMovedBackupIsMadeAndTheStorageReplaced) {
    for (const Removal& removal : {kMovedBackup, kMovedBackupOverOlder}) {
        const Trace trace = TraceOf(removal);
        EXPECT_EQ(UnflushedBefore(trace, "Rename storage to backup"), Strings({"directory"}));
        EXPECT_EQ(UnflushedBefore(trace, "Rename temporary to storage"), Strings({"directory"}));
        EXPECT_EQ(UnflushedAtTheEnd(trace), Strings({"index"}));
    }
}

TEST(SystemCrash, FindsAllBytesOnTheDiskWhenASqueezeReplacesTheStorage) {
    const Trace trace = TraceOf(kSqueeze);
    EXPECT_EQ(UnflushedBefore(trace, "Rename temporary to storage"), Strings({"directory"}));
    EXPECT_EQ(UnflushedAtTheEnd(trace), Strings({"index"}));
}

TEST(SystemCrash, FindsNoOldIndexWhenTheStorageStartsOver) {
    for (const Removal& removal : {kTruncate, kClearAll}) {
        EXPECT_EQ(UnflushedBefore(TraceOf(removal), "Write storage"), Strings());
    }
    EXPECT_EQ(UnflushedAtTheEnd(TraceOf(kTruncate)), Strings());
}

}  // namespace

}  // namespace k9erepl::test
