// Enumeration from memory: bounds, results, states, and what a visitor is given; and callbacks that
// call back in while a walk is under way, in memory and in the file: every record is delivered
// exactly once, in order.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "engine/load_fixture.h"
#include "support/fault_injection.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

// Six records in three blocks, flushed, all in memory.
class Enumeration : public ::testing::Test {
  protected:
    Enumeration() { m_storage.InsertMany(6); }

    CK9eReplStorage& Object() { return m_storage.Object(); }
    MemoryBlocks& Blocks() { return StorageAccess::InMemory(StorageAccess::Blocks(Object())); }
    u32 Enumerate() {
        m_seen.clear();
        return m_storage.Enumerate(&m_seen);
    }

    TestStorage m_storage{std::string(kEachCommit) + "cache_type=AllInMem"};
    LogCapture m_log;
    SeenRecords m_seen;
};

TEST_F(Enumeration, DeliversRecordsWithTheirWordAndDataInPlace) {
    ASSERT_EQ(m_storage.Insert("last", 77), RC_OK);
    ASSERT_EQ(m_storage.Insert("", 5), RC_OK);
    EXPECT_EQ(m_storage.Records(6), SeenRecords({{6, 0, "r6"}, {7, 77, "last"}, {8, 5, ""}}));
    const void* first = nullptr;
    EnumerateWith(m_storage, 1, 1, [&](const K9eReplRec& rec) {
        first = &rec;
        return RC_OK;
    });
    EXPECT_EQ(first, Blocks().begin()->second->Data() + kRecordPrefixSize);
}

TEST_F(Enumeration, DeliversEveryRangeInOrder) {
    ASSERT_EQ(Blocks().size(), 2U);
    ExpectEveryRange(m_storage, ModelOf(m_storage.Records()), 6);
    EXPECT_TRUE(m_storage.Records(-10, -1).empty());
    EXPECT_EQ(RevsOf(m_storage.Records(-10, 2)), Revs({1, 2}));
    EXPECT_TRUE(m_storage.Records(kEndOfRevs).empty());
    StorageAccess::OldestRev(Object()) = 4;
    EXPECT_EQ(RevsOf(m_storage.Records(1)), Revs({4, 5, 6}));
    EXPECT_EQ(RevsOf(m_storage.Records(5)), Revs({5, 6}));
}

TEST_F(Enumeration, OfWhatLiesBelowTheFirstRecordDeliversNothing) {
    TestStorage gap(kEachCommit);
    EXPECT_EQ(gap.NextRev(), 1);
    EXPECT_TRUE(gap.Records().empty());
    ASSERT_EQ(gap.InsertP(100, "late"), RC_OK);
    EXPECT_TRUE(gap.Records(1, 99).empty());
    EXPECT_EQ(RevsOf(gap.Records(1, 100)), Revs({100}));
}

TEST_F(Enumeration, ReturnsTheCallbacksResultAndStaysOpen) {
    for (const u32 wanted : {5U, RC_ENUM_STOP, RC_BAD_DATA, RC_FILE_CORRUPT, 0xFFFFFFFFU}) {
        Revs seen;
        const u32 rc = EnumerateWith(m_storage, 1, kEndOfRevs, [&](const K9eReplRec& rec) {
            seen.push_back(i64{rec.rev});
            return seen.size() == 3 ? wanted : 0U;
        });
        EXPECT_EQ(rc, wanted);
        EXPECT_EQ(seen, Revs({1, 2, 3}));
        EXPECT_EQ(m_storage.State(), StorageState::kOpen);
    }
}

TEST_F(Enumeration, WithoutCallbackAnswersInvalidArgumentWhenThereIsARecord) {
    EXPECT_EQ(K9eReplStorageEnumRecords(m_storage.Handle(), 2, 3, nullptr, nullptr),
              RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageEnumRecords(m_storage.Handle(), 7, 9, nullptr, nullptr), RC_OK);
    EXPECT_EQ(m_storage.State(), StorageState::kOpen);
}

struct Offsets {
    std::vector<i64> seen;

    static u32 Add(i64 offset, const K9eReplRec* /*rec*/, void* ctx) {
        static_cast<Offsets*>(ctx)->seen.push_back(offset);
        return RC_OK;
    }
};

TEST_F(Enumeration, TellsItsVisitorTheFileOffsetOfFlushedRecordsOnly) {
    TestStorage storage("flush_trans_num=2;flush_mode=PerTrans;flush_timeout=3600000");
    storage.InsertMany(1);
    Offsets offsets;
    ASSERT_EQ(StorageAccess::Enumerate(storage.Object(), 1, 9, Offsets::Add, &offsets), RC_OK);
    storage.InsertMany(2);
    ASSERT_EQ(storage.WaitForWriter(), RC_OK);
    ASSERT_EQ(StorageAccess::Enumerate(storage.Object(), 1, 9, Offsets::Add, &offsets), RC_OK);
    EXPECT_EQ(offsets.seen, std::vector<i64>({-1, 1056, 1056 + 26, -1}));
}

TEST_F(Enumeration, IsRefusedUnlessTheStorageIsOpen) {
    for (const StorageState state :
         {StorageState::kClosed, StorageState::kBroken, StorageState::kFlushFailed}) {
        StorageAccess::SetState(Object(), state);
        const auto text = "Failed to enum recs;state " + std::to_string(static_cast<int>(state));
        EXPECT_EQ(Enumerate(), RC_WRONG_STATE);
        EXPECT_EQ(m_log.CodeOf(text), RC_WRONG_STATE) << m_log;
        EXPECT_EQ(m_storage.State(), state);
        EXPECT_TRUE(m_seen.empty());
    }
    StorageAccess::SetState(Object(), StorageState::kOpen);
}

TEST_F(Enumeration, FailsAtABlockWithAWrongSignatureAndBreaksTheStorage) {
    K9eReplBlock& second = *std::next(Blocks().begin())->second;
    second.Data()[0] ^= 1U;
    EXPECT_EQ(Enumerate(), RC_BAD_DATA);
    EXPECT_EQ(m_log.CodeOf("Wrong rec signature;block rev 6"), RC_BAD_DATA) << m_log;
    EXPECT_EQ(RevsOf(m_seen), Revs({1, 2, 3, 4, 5}));
    EXPECT_EQ(m_storage.State(), StorageState::kBroken);
    EXPECT_EQ(Enumerate(), RC_WRONG_STATE);
}

TEST_F(Enumeration, FailsAtARecordWhoseSizeLeavesTheBlockOrStandsStill) {
    K9eReplBlock& first = *Blocks().begin()->second;
    for (const u32 size : {0U, 23U, 0xFFFFFFFFU, static_cast<u32>(first.used) + 1}) {
        std::memcpy(first.Data() + kSignatureSize, &size, sizeof size);
        StorageAccess::SetState(Object(), StorageState::kOpen);
        EXPECT_EQ(Enumerate(), RC_BAD_DATA) << size;
        EXPECT_EQ(m_storage.State(), StorageState::kBroken);
    }
    EXPECT_EQ(m_log.Count("Wrong rec signature;block rev 1"), 4U);
}

TEST_F(Enumeration, FailsInNoFlushModeWhenABlockHasLeftMemory) {
    TestStorage storage(std::string(kNoFile) + "file=:memory:;block_size=138", Start::kOpened);
    ASSERT_EQ(storage.TryLoad(), RC_OK);
    storage.InsertMany(6);
    ASSERT_EQ(StorageAccess::Blocks(storage.Object()).Shrink(1, kEndOfRevs), RC_OK);
    EXPECT_EQ(storage.Enumerate(&m_seen), RC_BAD_DATA);
    EXPECT_EQ(m_log.CodeOf("Failed to enum no block in mem in NoFlush mode;block rev 1"),
              RC_BAD_DATA)
        << m_log;
    EXPECT_EQ(storage.State(), StorageState::kBroken);
}

TEST_F(Enumeration, FailsAtABlockThatIsNeitherInMemoryNorInTheFile) {
    TestStorage storage(
        "flush_mode=PerTrans;flush_trans_num=99;flush_timeout=3600000;"
        "block_size=138;cache_type=Last1");
    storage.InsertMany(6);
    ASSERT_EQ(StorageAccess::Blocks(storage.Object()).Shrink(1, kEndOfRevs), RC_OK);
    EXPECT_EQ(storage.Enumerate(&m_seen), RC_BAD_DATA);
    EXPECT_EQ(m_log.CodeOf("Failed to enum,invalid file offset;block rev 1"), RC_BAD_DATA) << m_log;
    EXPECT_EQ(storage.State(), StorageState::kBroken);
    EXPECT_EQ(storage.Enumerate(&m_seen), RC_WRONG_STATE);
}

// --- Callbacks ----------------------------------------------------------------------------------

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
