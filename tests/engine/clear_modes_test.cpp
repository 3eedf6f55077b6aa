// What every mode of a clear has in common, for every kind of storage: where a clear revision may
// lie, what is served afterwards and in later lives, when nothing happens and when it is refused.
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

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
            if (rev >= 4 && rev < 33) {
                const i64 key = KeyOf(rev);
                EXPECT_EQ(storage.FirstRev(), GetParam().hasFile ? std::max(rev, key) : key);
            }
            storage.ExpectContentForLife();
            if (HasFailure()) {
                return;
            }
        }
    }
}

TEST_P(EveryKeeping, KeepsTheRecordsBehindEmptyBlocks) {
    const LogCapture refusals;
    for (const u32 mode : {kLogical, kSqueeze, kSqueezeBackup}) {
        for (const i64 rev : {3, 4}) {
            ClearableStorage storage(GetParam());
            storage.Put(2);
            storage.UseUpLeavingABlock();
            storage.UseUpLeavingABlock();
            storage.Put(3);
            storage.ClearTo(rev, mode);
            EXPECT_EQ(RevsOf(storage.Records()), RevRange(5, 7));
            storage.ExpectContentForLife();
        }
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

TEST_P(EveryKeeping, ChangesNothingUpToTheOldestRevisionOrWithoutRecords) {
    for (const u32 mode : kEveryMode) {
        ClearableStorage storage(GetParam());
        const LogCapture log;
        storage.ClearTo(1, mode);
        storage.ClearTo(100, mode);
        EXPECT_TRUE(log.Messages().empty()) << log;
        storage.Put(5);
        storage.ClearTo(3, mode);
        storage.ClearTo(1, kSqueeze);
        storage.WaitForWriter();
        const u64 generation = StorageAccess::Blocks(storage.Object()).Generation();
        const LogCapture later;
        for (const i64 rev : {3, 2, 0, -5}) {
            storage.ClearTo(rev, mode == kSqueezeBackup ? kLogical : mode);
        }
        EXPECT_EQ(StorageAccess::Blocks(storage.Object()).Generation(), generation);
        EXPECT_TRUE(later.Messages().empty()) << later;
        storage.ExpectContent();
    }
}

TEST_P(EveryKeeping, RefusesInsideATransactionAndInEveryStateButOpen) {
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
        for (const auto state :
             {StorageState::kClosed, StorageState::kBroken, StorageState::kFlushFailed}) {
            StorageAccess::SetState(storage.Object(), state);
            const std::string text =
                "Failed to clear old rev;state " + std::to_string(static_cast<int>(state));
            EXPECT_EQ(storage.Clear(2, mode), RC_WRONG_STATE);
            EXPECT_EQ(log.CodeOf(text), RC_WRONG_STATE) << log;
            EXPECT_TRUE(log.Has(K9SYS_LOG_ERROR, text)) << log;
            EXPECT_EQ(storage.State(), state);
        }
        EXPECT_EQ(log.Texts(K9SYS_LOG_ERROR).size(), 2U + 3U) << log;
        StorageAccess::SetState(storage.Object(), StorageState::kOpen);
        storage.ExpectContent();
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
    EXPECT_EQ(GetParam().hasFile ? FileItems(storage) : Strings(), items);
    for (const u32 mode : kEveryMode) {
        storage.ClearTo(storage.OldestRev() + 1, mode);
        storage.Put();
        EXPECT_EQ(storage.RevisionMark(), 0x123456789A);
    }
    storage.ExpectContentForLife();
    EXPECT_EQ(storage.RevisionMark(), 0x123456789A);
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

// --- Later lives ---------------------------------------------------------------------------------

namespace {

// The parameter: with the index or without it.
class ReopenedAfterAClear : public ::testing::TestWithParam<bool> {
  protected:
    static void Reopen(ClearableStorage& storage) {
        if (GetParam()) {
            storage.Reopen();
        } else {
            storage.ReopenWithoutIndex();
        }
    }
};
INSTANTIATE_TEST_SUITE_P(WithIndex, ReopenedAfterAClear, ::testing::Bool());

}  // namespace

TEST_P(ReopenedAfterAClear, KnowsWhetherTheBeginHasMovedAndGoesOnClearing) {
    for (const Keeping& keeping : KeepingsWithFile()) {
        ClearableStorage storage(keeping);
        storage.Put(4);
        i64 rev = 2;
        for (const u32 mode : {kLogical, kSqueeze, kLogical, 3U, kSqueezeBackup, kSqueeze}) {
            storage.ClearTo(rev, mode);
            Reopen(storage);
            EXPECT_EQ(StorageAccess::BeginMoved(storage.Object()), mode % 3 == 0) << rev;
            EXPECT_TRUE(mode % 3 != 0 || storage.FirstRev() == rev);
            storage.ExpectContent();
            storage.Put(3);
            rev += 3;
        }
        storage.ClearTo(storage.NextRev(), kLogical);
        Reopen(storage);
        EXPECT_FALSE(StorageAccess::BeginMoved(storage.Object()));
        storage.ExpectContentForLife();
    }
}

// An index from before a logical clear describes blocks that are still in the file.
TEST(ReopenedWithAnOlderIndex, ServesTheSame) {
    for (const Keeping& keeping : KeepingsWithFile()) {
        ClearableStorage storage(keeping);
        storage.Put(9);
        storage.Reopen();
        const std::vector<u8> older = ReadBytes(IndexPath(storage));
        for (const i64 rev : {2, 6, 7}) {
            storage.ClearTo(rev, kLogical);
            storage.Close();
            WriteBytes(IndexPath(storage), older);
            ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
            storage.ExpectContent();
            EXPECT_TRUE(StorageAccess::BeginMoved(storage.Object()));
        }
        storage.ClearTo(0, kSqueeze);
        storage.ExpectContentForLife();
    }
}

namespace {

struct Removal {
    i64 rev;  // 1000: everything
    u32 mode;
};

const std::vector<std::vector<Removal>> kLivesOfRemovals = {{},
                                                            {{4, kSqueeze}},
                                                            {{4, kSqueezeBackup}, {6, kSqueeze}},
                                                            {{3, kLogical}, {1, kSqueeze}},
                                                            {{-3, kLogical}, {0, kSqueeze}},
                                                            {{1000, kLogical}}};

}  // namespace

// A negative clear revision in the file's first commit block, as one flipped bit leaves it: the
// load takes it, the writer carries it on, and nothing that is written falls below it or hides what
// follows.
TEST(NegativeClearRev, OutlastsEveryClearButThatOfEverything) {
    for (const i64 clearRev : {std::numeric_limits<i64>::min(), i64{-1}, i64{-1000}}) {
        for (const auto& life : kLivesOfRemovals) {
            for (const u32 before : {0U, 9U}) {  // records written before the bit flips
                ClearableStorage storage(KeepOnDisk());
                storage.Put(before);
                storage.Close();
                PatchBytes(storage.Path(), 1040,
                           {reinterpret_cast<const u8*>(&clearRev), sizeof clearRev});
                ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
                storage.Put(9 - before);
                i64 first = 1;
                i64 next = 10;
                for (const Removal& removal : life) {
                    ASSERT_EQ(storage.Clear(removal.rev, removal.mode), RC_OK);
                    first = std::max(first, std::min(removal.rev, next));
                    for (const bool withIndex : {true, false}) {
                        ASSERT_EQ(storage.Insert("more"), RC_OK);
                        if (withIndex) {
                            storage.Reopen();
                        } else {
                            storage.ReopenWithoutIndex();
                        }
                        EXPECT_EQ(RevsOf(storage.Records()), RevRange(first, next));
                        EXPECT_EQ(storage.NextRev(), ++next);
                    }
                }
                EXPECT_EQ(RevsOf(storage.Records()), RevRange(first, next - 1));
            }
        }
    }
}

}  // namespace k9erepl::test
