// Clears to revisions that were used up: blocks without records, with kept records behind them, and
// walks that a clear in memory overtakes.
#include <gtest/gtest.h>

#include "engine/clear_fixture.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

TEST(ClearToAnEmptyBlock, KeepsTheRecordsBehindIt) {
    const LogCapture refusals;
    for (const Keeping& keeping : AllKeepings()) {
        for (const u32 mode : {kLogical, kSqueeze, kSqueezeBackup}) {
            for (const i64 rev : {3, 4}) {
                SCOPED_TRACE(std::string(keeping.name) + " to " + std::to_string(rev));
                ClearableStorage storage(keeping);
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
}

TEST(ClearWithoutAFile, MakesAWalkPassTheClearedRecordsOver) {
    TestStorage storage("file=:memory:;cache_type=AllInMem;flush_mode=NoFlush");
    storage.InsertMany(6);
    Revs seen;
    const auto clearAtTheSecond = [&](const K9eReplRec& rec) -> u32 {
        seen.push_back(i64{rec.rev});
        return rec.rev == 2 ? K9eReplStorageClearOldRev(storage.Handle(), 5, kLogical) : RC_OK;
    };
    EXPECT_EQ(EnumerateWith(storage, 1, kEndOfRevs, clearAtTheSecond), RC_OK);
    EXPECT_EQ(seen, (Revs{1, 2, 5, 6}));
}

}  // namespace
}  // namespace k9erepl::test
