// What every mode of a clear has in common, for every kind of storage: where a clear revision may
// lie, what is served afterwards and after reopening, when nothing happens and when it is refused.
#include <gtest/gtest.h>

#include <algorithm>

#include "engine/clear_fixture.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

constexpr u32 kEveryMode[] = {0, 1, 2, 3, 5, 77, 0xFFFFFFFF};

class EveryKeeping : public ::testing::TestWithParam<Keeping> {
  protected:
    // Blocks 5-6, 7, 8-10 (8 was used up), 20-21, 22-30, 31-32; 33 was used up. Gaps lie before
    // the first record, between blocks and inside one.
    static void FillWithGaps(ClearableStorage& storage) {
        storage.PutAt(5);
        storage.Put(2);
        storage.UseUpLeavingABlock();
        storage.Put(2);
        storage.PutAt(20);
        storage.Put(2);
        storage.PutAt(30);
        storage.Put(2);
        storage.UseUp();
    }
    static constexpr i64 kNextRev = 34;
    // Keys of the blocks, as the first revision answers them.
    static i64 KeyOf(i64 rev) {
        i64 key = 5;
        for (const i64 next : {7, 8, 20, 22, 31}) {
            key = rev >= next ? next : key;
        }
        return key;
    }
    static constexpr i64 kClearRevs[] = {-1, 0,  4,  5,  6,  7,  8,  9,  10, 11,  19,
                                         20, 21, 22, 25, 30, 31, 32, 33, 34, 1000};
};

INSTANTIATE_TEST_SUITE_P(Keeping, EveryKeeping, ::testing::ValuesIn(AllKeepings()), NameOfKeeping);

}  // namespace

TEST_P(EveryKeeping, ServesWhatIsNotBelowTheClearRevisionForLife) {
    for (const u32 mode : {kLogical, kSqueeze, kSqueezeBackup}) {
        for (const i64 rev : kClearRevs) {
            SCOPED_TRACE("mode " + std::to_string(mode) + " rev " + std::to_string(rev));
            ClearableStorage storage(GetParam());
            FillWithGaps(storage);
            storage.ClearTo(rev, mode);
            storage.ExpectContentForLife();
            if (HasFailure()) {
                return;
            }
        }
    }
}

TEST_P(EveryKeeping, AnswersTheFirstRevisionOfTheBlockThatHeldTheClearRevision) {
    for (const i64 rev : {4, 5, 6, 7, 9, 11, 19, 20, 21, 25, 32}) {
        ClearableStorage storage(GetParam());
        FillWithGaps(storage);
        storage.ClearTo(rev, rev % 2 == 0 ? kLogical : kSqueeze);
        const i64 expected = GetParam().hasFile ? std::max<i64>(rev, KeyOf(rev)) : KeyOf(rev);
        EXPECT_EQ(storage.FirstRev(), expected) << rev;
    }
}

TEST_P(EveryKeeping, TreatsEveryOtherModeAsLogical) {
    for (const u32 mode : {3U, 5U, 77U, 0xFFFFFFFFU}) {
        ClearableStorage storage(GetParam());
        FillWithGaps(storage);
        storage.ClearTo(9, mode);
        EXPECT_EQ(StorageAccess::BeginMoved(storage.Object()), GetParam().hasFile);
        storage.ExpectContentForLife();
    }
}

TEST_P(EveryKeeping, ServesEveryRangeAfterSeveralClears) {
    ClearableStorage storage(GetParam());
    FillWithGaps(storage);
    storage.ClearTo(6, kLogical);
    storage.ClearTo(9, 3);
    storage.ExpectContent();
    storage.ClearTo(20, kSqueezeBackup);
    storage.Put();
    storage.ClearTo(21, kLogical);
    ExpectEveryRange(storage, storage.Content(), 36);
    storage.ClearTo(22, kSqueeze);
    ExpectEveryRange(storage, storage.Content(), 36);
    storage.ExpectContentForLife();
}

TEST_P(EveryKeeping, ChangesNothingUpToTheOldestRevision) {
    for (const u32 mode : kEveryMode) {
        ClearableStorage storage(GetParam());
        storage.Put(5);
        storage.ClearTo(3, mode);
        storage.ClearTo(1, kSqueeze);
        const u64 generation = StorageAccess::Blocks(storage.Object()).Generation();
        const LogCapture log;
        for (const i64 rev : {3, 2, 0, -5}) {
            storage.ClearTo(rev, mode == kSqueezeBackup ? kLogical : mode);
        }
        EXPECT_EQ(StorageAccess::Blocks(storage.Object()).Generation(), generation);
        EXPECT_TRUE(log.Messages().empty()) << log;
        storage.ExpectContent();
    }
}

TEST_P(EveryKeeping, ChangesNothingWithoutRecords) {
    for (const u32 mode : kEveryMode) {
        ClearableStorage storage(GetParam());
        const LogCapture log;
        storage.ClearTo(1, mode);
        storage.ClearTo(100, mode);
        EXPECT_TRUE(log.Messages().empty()) << log;
        storage.ExpectContentForLife();
    }
}

TEST_P(EveryKeeping, RefusesInsideATransaction) {
    for (const u32 mode : {0U, 1U, 2U, 3U, 4U, 77U}) {
        ClearableStorage storage(GetParam());
        storage.Put(3);
        ASSERT_EQ(storage.Begin(), RC_OK);
        const LogCapture log;
        EXPECT_EQ(storage.Clear(2, mode), RC_IN_TRANSACTION);
        EXPECT_EQ(storage.ClearAll(mode), RC_IN_TRANSACTION);
        EXPECT_EQ(log.Count("Coundn't clear old rev in trans"), 2U) << log;
        EXPECT_EQ(log.CodeOf("Coundn't clear old rev in trans"), RC_IN_TRANSACTION);
        EXPECT_TRUE(log.Has(K9SYS_LOG_ERROR, "Coundn't clear old rev in trans"));
        ASSERT_EQ(storage.Rollback(), RC_OK);
        EXPECT_EQ(storage.RevisionMark(), 0);
        storage.ExpectContent();
    }
}

TEST_P(EveryKeeping, RefusesInEveryStateButOpen) {
    for (const u32 mode : {0U, 1U, 2U, 4U}) {
        for (const auto state :
             {StorageState::kClosed, StorageState::kBroken, StorageState::kFlushFailed}) {
            ClearableStorage storage(GetParam());
            storage.Put(3);
            storage.WaitForWriter();  // which logs too
            StorageAccess::SetState(storage.Object(), state);
            const std::string text =
                "Failed to clear old rev;state " + std::to_string(static_cast<int>(state));
            const LogCapture log;
            EXPECT_EQ(storage.Clear(2, mode), RC_WRONG_STATE);
            EXPECT_EQ(log.CodeOf(text), RC_WRONG_STATE) << log;
            EXPECT_TRUE(log.Has(K9SYS_LOG_ERROR, text)) << log;
            EXPECT_EQ(log.Messages().size(), 1U);
            EXPECT_EQ(storage.State(), state);
            StorageAccess::SetState(storage.Object(), StorageState::kOpen);
            storage.ExpectContent();
        }
    }
}

TEST_P(EveryKeeping, OnlyRemembersTheRevisionMarkInModeFour) {
    ClearableStorage storage(GetParam());
    storage.Put(5);
    const u64 generation = StorageAccess::Blocks(storage.Object()).Generation();
    const Strings items = GetParam().hasFile ? FileItems(storage) : Strings();
    for (const i64 mark : {3LL, 100LL, 0LL, -1LL, 0x123456789ALL}) {
        EXPECT_EQ(storage.Clear(mark, kMark), RC_OK);
        EXPECT_EQ(storage.RevisionMark(), mark);
    }
    EXPECT_EQ(StorageAccess::Blocks(storage.Object()).Generation(), generation);
    if (GetParam().hasFile) {
        EXPECT_EQ(FileItems(storage), items);
        storage.ExpectContentForLife();
        EXPECT_EQ(storage.RevisionMark(), 0x123456789A);
    }
    storage.ExpectContent();
}

TEST_P(EveryKeeping, LeavesTheRevisionMarkInEveryOtherMode) {
    for (const u32 mode : kEveryMode) {
        ClearableStorage storage(GetParam());
        storage.Put(5);
        ASSERT_EQ(storage.Clear(77, kMark), RC_OK);
        storage.ClearTo(3, mode);
        storage.ClearTo(6, mode);
        EXPECT_EQ(storage.RevisionMark(), 77);
    }
}

TEST(ClearOldRev, RefusesANullHandle) {
    EXPECT_EQ(K9eReplStorageClearOldRev(nullptr, 1, kLogical), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageClearAll(nullptr, kLogical), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageTruncate(nullptr), RC_INVALID_ARG);
}

// Only whole blocks leave; what is below the clear revision in the last of them is not served.
TEST(ClearInMemory, GivesWholeBlocksBack) {
    ClearableStorage storage(AllKeepings().back());
    storage.Put(7);
    const BlockStore& blocks = StorageAccess::Blocks(storage.Object());
    const LogCapture log;
    storage.ClearTo(4, kSqueezeBackup);
    EXPECT_EQ(blocks.Blocks().size(), 3U);
    EXPECT_EQ(blocks.Index().begin()->first, 3);
    EXPECT_FALSE(StorageAccess::BeginMoved(storage.Object()));
    EXPECT_TRUE(log.Messages().empty()) << log;
    storage.ClearTo(8, kLogical);
    EXPECT_TRUE(blocks.Blocks().empty());
    EXPECT_TRUE(blocks.Index().empty());
    storage.ExpectContentForLife();
}

}  // namespace k9erepl::test
