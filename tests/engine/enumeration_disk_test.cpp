// Enumeration of records that have left memory: read back from the file, and across the border
// between file and memory, past empty blocks, and from a file that cannot be read.
#include <gtest/gtest.h>

#include "engine/flush_fixture.h"
#include "engine/load_fixture.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

constexpr std::string_view kLateFlush =
    "flush_mode=PerTrans;flush_trans_num=99;flush_timeout=3600000;read_buffers_count=1;"
    "block_size=138;cache_type=Last1";

// Memory keeps one block of 138 bytes.
class EnumerationFromDisk : public ::testing::Test {
  protected:
    void Put(u32 count) {
        m_storage.InsertMany(count);
        m_storage.Settle();
        ASSERT_EQ(InMemory().size(), 1U);
        m_log.Clear();
    }
    const MemoryBlocks& InMemory() { return StorageAccess::Blocks(m_storage.Object()).Blocks(); }
    void ExpectEveryRangeServed(i64 lastRev, std::size_t count) {
        EXPECT_EQ(m_storage.Records().size(), count);
        ExpectEveryRange(m_storage, ModelOf(m_storage.Records()), lastRev);
    }
    void ExpectReadFromFile(i64 last) {
        EXPECT_EQ(m_log.CountContaining("Enum from disk"), 1U) << m_log;
        EXPECT_TRUE(m_log.Has("Enum from disk 1-" + std::to_string(last))) << m_log;
        m_log.Clear();
    }

    const ScopedSystemCalls m_systemCalls;
    TestStorage m_storage{SmallCache(1)};
    LogCapture m_log;
};

TEST_F(EnumerationFromDisk, DeliversEveryRangeAcrossFileAndMemory) {
    Put(40);
    EXPECT_EQ(m_storage.Texts(), Numbered(40));
    ExpectEveryRangeServed(40, 40);
}

TEST_F(EnumerationFromDisk, DeliversEveryRangeWithGapsBetweenRevisions) {
    for (const i64 rev : {3, 4, 9, 10, 11, 20, 21, 27, 28, 30}) {
        ASSERT_EQ(m_storage.InsertP(rev, OneBlock(std::to_string(rev))), RC_OK);
    }
    ExpectEveryRangeServed(31, 10);
    m_storage.Reopen();
    ExpectEveryRangeServed(31, 10);
}

TEST_F(EnumerationFromDisk, DeliversEveryRangeWithRecordsThatAreNotFlushed) {
    Put(12);
    m_storage.Reopen(kLateFlush);
    m_storage.InsertMany(12, "late");
    ASSERT_EQ(StorageAccess::FlushedRev(m_storage.Object()), 12);
    ExpectEveryRangeServed(24, 24);
}

TEST_F(EnumerationFromDisk, MakesOnePassForAllBlocksThatAreNotInMemory) {
    Put(40);
    EXPECT_EQ(m_storage.Records(1).size(), 40U);
    ExpectReadFromFile(InMemory().begin()->first - 1);
    EXPECT_EQ(RevsOf(m_storage.Records(40)), Revs({40}));
    EXPECT_EQ(m_log.CountContaining("Enum from disk"), 0U);
    StorageAccess::OldestRev(m_storage.Object()) = 7;
    EXPECT_EQ(RevsOf(m_storage.Records(1)), RevRange(7, 40));
}

TEST_F(EnumerationFromDisk, ReturnsTheCallbacksResultAndStaysOpen) {
    Put(20);
    Revs seen;
    EXPECT_EQ(EnumerateWith(m_storage, 1, kEndOfRevs,
                            [&](const K9eReplRec& rec) {
                                seen.push_back(i64{rec.rev});
                                return rec.rev == 3 ? 5U : 0U;
                            }),
              5U);
    EXPECT_EQ(seen, Revs({1, 2, 3}));
    EXPECT_EQ(K9eReplStorageEnumRecords(m_storage.Handle(), 1, 2, nullptr, nullptr),
              RC_INVALID_ARG);
    EXPECT_EQ(m_storage.State(), StorageState::kOpen);
}

TEST_F(EnumerationFromDisk, LeavesTheFilesLaterWritesInPlace) {
    for (u32 n = 1; n <= 20; ++n) {
        ASSERT_EQ(m_storage.Insert("r" + std::to_string(n)), RC_OK);
        ASSERT_EQ(m_storage.Texts(), Numbered(n));
    }
    m_storage.Reopen();
    EXPECT_EQ(m_storage.Texts(), Numbered(20));
}

// Nothing of ours brings that about; a walk ends all the same.
TEST_F(EnumerationFromDisk, EndsWhenTheIndexHasLostBlocksThatAreInMemory) {
    TestStorage storage(std::string(kEachCommit) + "cache_type=AllInMem");
    storage.InsertMany(20);
    ASSERT_EQ(storage.WaitForWriter(), RC_OK);
    BlockIndex& index = StorageAccess::Entries(StorageAccess::Blocks(storage.Object()));
    ASSERT_EQ(index.size(), 4U);
    index.begin()->second.block = nullptr;
    std::next(index.begin(), 2)->second.block = nullptr;
    EXPECT_EQ(RevsOf(storage.Records()), RevRange(1, 20));
    index.rbegin()->second.block = nullptr;
    EXPECT_EQ(RevsOf(storage.Records()), RevRange(1, 20));
}

TEST_F(EnumerationFromDisk, ReadsTheLowestRevisionInMemoryFromTheFileOnlyWhenTheRangeEndsThere) {
    Put(7);
    const auto& [lowest, block] = *InMemory().begin();
    for (const auto& [last, lastFromFile] :
         {std::pair{lowest, lowest}, {lowest + 1, lowest - 1}, {lowest - 1, lowest - 1}}) {
        EXPECT_EQ(RevsOf(m_storage.Records(1, last)), RevRange(1, last));
        ExpectReadFromFile(lastFromFile);
    }
    block->pendingWrites = 1;
    EXPECT_EQ(RevsOf(m_storage.Records(1, lowest)), RevRange(1, lowest));
    ExpectReadFromFile(lowest - 1);
    block->pendingWrites = 0;
}

// An idle flush asks for shrinking; the next commit, which does not flush, carries it out.
TEST_F(EnumerationFromDisk, DeliversTheLowestRevisionInMemoryFromThereWhileItIsNotFlushed) {
    m_storage.Reopen(kLateFlush);
    for (const char* text : {"1", "2", "3"}) {
        ASSERT_EQ(m_storage.Insert(OneBlock(text)), RC_OK);
    }
    ASSERT_EQ(StorageAccess::Flush(m_storage.Object()), RC_OK);
    ASSERT_EQ(m_storage.WaitForWriter(), RC_OK);
    ASSERT_EQ(m_storage.Insert(OneBlock("4")), RC_OK);
    ASSERT_EQ(InMemory().begin()->first, 4);
    m_log.Clear();
    EXPECT_EQ(RevsOf(m_storage.Records(1, 4)), Revs({1, 2, 3, 4}));
    ExpectReadFromFile(3);
}

// --- Empty blocks --------------------------------------------------------------------------------

// A record that fits no block leaves an empty block behind: it has no bytes in the file, and
// nothing may look for it there.
class EmptyBlock : public ::testing::Test {
  protected:
    bool HasEmptyBlock() {
        bool has = false;
        for (const auto& [key, block] : StorageAccess::Blocks(m_storage.Object()).Blocks()) {
            has = has || block->used == 0;
        }
        return has;
    }
    // A committed transaction of a record of one block, two that do not fit, and another.
    void CommitAroundOversizedRecords() {
        ASSERT_EQ(m_storage.Begin(), RC_OK);
        ASSERT_EQ(m_storage.Insert(OneBlock("before")), RC_OK);
        ASSERT_EQ(m_storage.Insert(std::string(115, 'x')), RC_INVALID_ARG);
        ASSERT_EQ(m_storage.Insert(std::string(115, 'y')), RC_INVALID_ARG);
        ASSERT_EQ(m_storage.Insert(OneBlock("behind")), RC_OK);
        ASSERT_EQ(m_storage.Commit(), RC_OK);
    }
    void ExpectServed(std::size_t count, bool hasEmptyBlock) {
        EXPECT_EQ(HasEmptyBlock(), hasEmptyBlock);
        EXPECT_EQ(m_storage.Records().size(), count);
        ExpectEveryRange(m_storage, ModelOf(m_storage.Records()), m_storage.NextRev());
        for (const auto& [rev, entry] : StorageAccess::Blocks(m_storage.Object()).Index()) {
            EXPECT_TRUE(entry.block != nullptr || entry.fileOffset != kUnknownOffset) << rev;
        }
    }

    TestStorage m_storage{SmallCache(2)};
    LogCapture m_log;  // keeps the messages of the refused records to itself
};

// After two blocks that fill the cache the empty one is the lowest in memory.
TEST_F(EmptyBlock, IsPassedOverInMemoryAndAtItsBorder) {
    m_storage.InsertMany(30);
    CommitAroundOversizedRecords();
    m_storage.Settle();
    ASSERT_EQ(StorageAccess::Blocks(m_storage.Object()).Blocks().begin()->second->used, 0U);
    ExpectServed(32, true);
    m_storage.Reopen(std::string(kEachCommit) + "cache_type=AllInMem");
    CommitAroundOversizedRecords();
    ExpectServed(34, true);
}

TEST_F(EmptyBlock, ThatLeavesMemoryLeavesTheIndexToo) {
    CommitAroundOversizedRecords();
    CommitAroundOversizedRecords();
    m_storage.InsertMany(30);
    m_storage.Settle();
    ExpectServed(34, false);
}

TEST_F(EmptyBlock, IsGoneAfterReopening) {
    CommitAroundOversizedRecords();
    const SeenRecords before = m_storage.Records();
    ASSERT_EQ(m_storage.Begin(), RC_OK);
    ASSERT_EQ(m_storage.Insert(std::string(115, 'x')), RC_INVALID_ARG);
    EXPECT_EQ(m_storage.Records(), before);
    ASSERT_EQ(m_storage.Commit(), RC_OK);
    EXPECT_EQ(m_storage.NextRev(), 6);
    m_storage.Reopen();
    EXPECT_EQ(m_storage.NextRev(), 5) << "no record has the one that was used up";
    EXPECT_EQ(m_storage.Records(), before);
    ExpectServed(2, false);
    m_storage.InsertMany(20);
    m_storage.Reopen();
    ExpectServed(22, false);
}

// The next record fits the empty block, whose revision then is not that of its first record.
TEST_F(EmptyBlock, ThatIsFilledLaterDeliversItsRecords) {
    m_storage.InsertMany(5);
    ASSERT_EQ(m_storage.Begin(), RC_OK);
    ASSERT_EQ(m_storage.Insert(std::string(115, 'x')), RC_INVALID_ARG);
    ASSERT_EQ(m_storage.Insert("small"), RC_OK);
    ASSERT_EQ(m_storage.Commit(), RC_OK);
    m_storage.InsertMany(30, "more");
    ExpectServed(36, false);
    m_storage.Reopen();
    ExpectServed(36, false);
}

// --- A file that cannot be read or holds something else than what was written --------------------

// 20 records of one block each, of which memory holds the last: an item of the file is a record
// of 138 bytes or a commit block.
class EnumerationOfADamagedFile : public ::testing::Test {
  protected:
    EnumerationOfADamagedFile() {
        for (u32 n = 1; n <= 20; ++n) {
            EXPECT_EQ(m_storage.Insert(OneBlock(std::to_string(n))), RC_OK);
        }
        m_storage.Settle();
        m_log.Clear();
    }
    static constexpr i64 OffsetOf(i64 rev) { return 1056 + (rev - 1) * (138 + 32); }
    void Patch(i64 offset, u32 word) {
        PatchBytes(m_storage.Path(), offset, {reinterpret_cast<const u8*>(&word), sizeof word});
    }
    // The enumeration must fail with `rc` and this message before it delivers `firstMissing`.
    void ExpectFailure(u32 rc, std::string_view text, i64 firstMissing) {
        SeenRecords seen;
        EXPECT_EQ(m_storage.Enumerate(&seen), rc);
        EXPECT_EQ(m_log.CodeOf(text), rc) << m_log;
        EXPECT_EQ(RevsOf(seen), RevRange(1, firstMissing - 1));
        EXPECT_EQ(m_storage.State(), StorageState::kBroken);
        EXPECT_EQ(m_storage.Enumerate(&seen), RC_WRONG_STATE);
    }

    ScopedSystemCalls m_systemCalls;
    TestStorage m_storage{SmallCache(1)};
    LogCapture m_log;
};

TEST_F(EnumerationOfADamagedFile, FailsAtAWrongSignatureAndOnlyInARangeThatReachesIt) {
    Patch(OffsetOf(8), 0x12345678);
    EXPECT_EQ(RevsOf(m_storage.Records(2, 6)), RevRange(2, 6));
    EXPECT_EQ(RevsOf(m_storage.Records(5, 5)), Revs({5}));
    ExpectFailure(RC_BAD_DATA,
                  "Wrong signature (0x12345678) found, offset " + std::to_string(OffsetOf(8)), 8);
}

// Behind the last block's key the pass of the file has no upper bound of its own.
TEST_F(EnumerationOfADamagedFile, FailsAtARecordThatWasNeverCommitted) {
    Patch(OffsetOf(4) + 8, 1000);
    for (const bool bounded : {true, false}) {
        StorageAccess::SetState(m_storage.Object(), StorageState::kOpen);
        m_log.Clear();
        if (!bounded) {
            ASSERT_EQ(StorageAccess::Blocks(m_storage.Object()).Shrink(0, 20), RC_OK);
        }
        ExpectFailure(RC_BAD_DATA, "Read uncommitted rec with rev 1000,last committed rev 20", 4);
    }
}

TEST_F(EnumerationOfADamagedFile, FailsWithTheSystemAndCanBeReadAgainAfterReopening) {
    FailRead(1);
    SeenRecords seen;
    EXPECT_EQ(m_storage.Enumerate(&seen), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_storage.State(), StorageState::kBroken);
    m_storage.Reopen();
    EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(1, 20));
}

// The index leads the load past the damage, which only the enumeration then meets.
TEST(EnumerationOfWhatTheIndexPassedOver, FailsAtARevisionAboveTheRange) {
    const auto offsetOf = [](i64 rev) { return 1056 + (rev - 1) * (34 + 32); };
    TestStorage storage(SmallCache(1));  // blocks of four such records
    for (u32 n = 1; n <= 20; ++n) {
        ASSERT_EQ(storage.Insert("ten bytes."), RC_OK);
    }
    storage.Reopen();  // which saves the index
    storage.Close();
    PatchBytes(storage.Path(), offsetOf(6) + 8, std::vector<u8>{19});
    LogCapture log;
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    EXPECT_EQ(log.CountContaining("Index test passed"), 1U) << log;
    SeenRecords seen;
    EXPECT_EQ(storage.Enumerate(&seen), RC_BAD_DATA);
    EXPECT_EQ(RevsOf(seen), RevRange(1, 5));
    EXPECT_EQ(log.CodeOf("Read rec with rev 19, but revs up to 16 reach to offset " +
                         std::to_string(offsetOf(17)) + ", offset " + std::to_string(offsetOf(6))),
              RC_BAD_DATA)
        << log;
}

// The record behind the range is in the file, but its commit block is being written.
TEST(EnumerationInAFlush, EndsAtARecordOfTheFlush) {
    Notified written;
    TestStorage storage(SmallCache(1, "async_mode=no;"));
    for (u32 n = 1; n <= 5; ++n) {
        ASSERT_EQ(storage.Insert(OneBlock("")), RC_OK);
    }
    Revs seen;
    written.Does([&](i64 rev) { seen = RevsOf(storage.Records(2, rev - 1)); });
    written.SetAsOnWriteToFile(storage);
    ASSERT_EQ(storage.Insert(OneBlock("six")), RC_OK);
    EXPECT_EQ(seen, RevRange(2, 5));
    written.Does({});
}

}  // namespace
}  // namespace k9erepl::test
