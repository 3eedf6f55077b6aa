// Enumeration callbacks that call back in: they insert, commit, roll back, truncate and enumerate
// while a walk is under way, in memory and in the file. Every record is delivered exactly once, in
// order.
#include <gtest/gtest.h>

#include <algorithm>

#include "engine/load_fixture.h"
#include "support/fault_injection.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

// With everything in memory, and with a cache so small that nearly everything is in the file.
class EnumerationCallback : public ::testing::TestWithParam<const char*> {
  protected:
    TestStorage m_storage{std::string(kEachCommit) + "memory_reserve=1;" + GetParam()};
};

TEST_P(EnumerationCallback, ThatInsertsSeesItsRecordsToo) {
    m_storage.InsertMany(12);
    const Revs seen = Walk(m_storage, [&](i64 rev) {
        if (rev <= 30) {
            ASSERT_EQ(m_storage.Insert("more"), RC_OK);
        }
    });
    EXPECT_EQ(seen, RevRange(1, 42));
    m_storage.Reopen();
    EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(1, 42));
}

TEST_P(EnumerationCallback, ThatInsertsStaysInItsRange) {
    m_storage.InsertMany(7);
    const Revs seen = Walk(
        m_storage, [&](i64) { ASSERT_EQ(m_storage.Insert(OneBlock("more")), RC_OK); }, 5);
    EXPECT_EQ(seen, RevRange(1, 5));
    EXPECT_EQ(m_storage.NextRev(), 13);
}

TEST_P(EnumerationCallback, ThatCommitsManyRecordsAtOnceLosesNothing) {
    m_storage.InsertMany(12);
    bool done = false;
    const Revs seen = Walk(m_storage, [&](i64 rev) {
        if (rev == 6 && !done) {
            done = true;
            m_storage.InsertMany(40, "burst");
        }
    });
    EXPECT_EQ(seen, RevRange(1, 52));
}

TEST_P(EnumerationCallback, ThatRollsBackGoesOnWithWhatIsLeft) {
    for (const i64 at : {3, 16}) {
        TestStorage storage(std::string(kEachCommit) + GetParam());
        storage.InsertMany(14);
        ASSERT_EQ(storage.Begin(), RC_OK);
        storage.InsertMany(14, "lost");
        const Revs seen = Walk(storage, [&](i64 rev) {
            if (rev == at) {
                ASSERT_EQ(storage.Rollback(), RC_OK);
            }
        });
        EXPECT_EQ(seen, RevRange(1, std::max<i64>(at, 14)));
        EXPECT_EQ(storage.NextRev(), 15);
    }
}

TEST_P(EnumerationCallback, ThatRollsBackAndInsertsGoesOnBehindTheLastDelivered) {
    m_storage.InsertMany(3);
    ASSERT_EQ(m_storage.Begin(), RC_OK);
    m_storage.InsertMany(14, "lost");
    const Revs seen = Walk(m_storage, [&](i64 rev) {
        if (rev == 10) {
            ASSERT_EQ(m_storage.Rollback(), RC_OK);
            m_storage.InsertMany(20, "new");
        }
    });
    EXPECT_EQ(seen, RevRange(1, 23));
    EXPECT_EQ(m_storage.Texts(11, 11), Strings({"new8"}));
}

TEST_P(EnumerationCallback, ThatEnumeratesAndInsertsWithinIsSeenByBoth) {
    m_storage.InsertMany(12);
    Revs inner;
    const Revs outer = Walk(m_storage, [&](i64 rev) {
        if (rev == 4) {
            inner = Walk(m_storage, [&](i64 innerRev) {
                if (innerRev <= 10) {
                    ASSERT_EQ(m_storage.Insert(OneBlock("deep")), RC_OK);
                }
            });
        }
    });
    EXPECT_EQ(inner, RevRange(1, 22));
    EXPECT_EQ(outer, RevRange(1, 22));
}

TEST_P(EnumerationCallback, ThatStopsAfterChangingTheStorageReturnsItsResult) {
    m_storage.InsertMany(12);
    const u32 rc = EnumerateWith(m_storage, 1, 9, [&](const K9eReplRec& rec) {
        EXPECT_EQ(m_storage.Insert(OneBlock("more")), RC_OK);
        return rec.rev == 2 ? 99U : RC_OK;
    });
    EXPECT_EQ(rc, 99U);
    EXPECT_EQ(m_storage.State(), StorageState::kOpen);
    EXPECT_EQ(m_storage.NextRev(), 15);
}

// Blocks leave memory under the walk: the small cache lets go of them at each commit.
TEST_P(EnumerationCallback, ThatCommitsAfterALateFlushLosesNothing) {
    m_storage.Reopen(std::string("flush_mode=PerTrans;flush_trans_num=7;flush_timeout=3600000;"
                                 "read_buffers_count=1;block_size=138;memory_reserve=1;") +
                     GetParam());
    m_storage.InsertMany(30);
    const Revs seen = Walk(m_storage, [&](i64 rev) {
        if (rev <= 30) {
            ASSERT_EQ(m_storage.Insert(OneBlock("more")), RC_OK);
        }
    });
    EXPECT_EQ(seen, RevRange(1, 60));
}

INSTANTIATE_TEST_SUITE_P(Caches, EnumerationCallback,
                         ::testing::Values("cache_type=AllInMem", "cache_type=Last1",
                                           "cache_type=Last3"),
                         [](const auto& cache) { return std::string(cache.param).substr(11); });

TEST(EnumerationCallbackInMemory, WhoseFlushFailsIsCalledForTheRestAllTheSame) {
    SKIP_WHEN_ASYNC("a failed write is reported by the flush that made it");
    ScopedSystemCalls systemCalls;
    const LogCapture quiet;
    TestStorage storage(std::string(kEachCommit) + "cache_type=AllInMem");
    storage.InsertMany(12);
    const Revs seen = Walk(storage, [&](i64 rev) {
        if (rev == 3) {
            FailWrite(1);
            ASSERT_EQ(storage.Begin(), RC_OK);
            ASSERT_EQ(storage.Insert("more"), RC_OK);
            ASSERT_EQ(storage.Commit(), RC_SYSTEM_ERROR);
        }
    });
    EXPECT_EQ(seen, RevRange(1, 13));
    EXPECT_EQ(storage.State(), StorageState::kFlushFailed);
    EXPECT_EQ(storage.Commit(), RC_OK);
    EXPECT_EQ(RevsOf(storage.Records()), RevRange(1, 13));
}

// The record of a callback stays what it was while blocks are added.
TEST(EnumerationCallbackInMemory, KeepsItsRecordWhileItInserts) {
    TestStorage storage(std::string(kEachCommit) + "cache_type=AllInMem");
    storage.InsertMany(20);
    const u32 rc = EnumerateWith(storage, 1, 20, [&](const K9eReplRec& rec) {
        EXPECT_EQ(storage.Insert(OneBlock("more")), RC_OK);
        const std::string text(reinterpret_cast<const char*>(rec.data), rec.dataSize);
        EXPECT_EQ(text, "r" + std::to_string(rec.rev));
        return RC_OK;
    });
    EXPECT_EQ(rc, RC_OK);
}

}  // namespace
}  // namespace k9erepl::test
