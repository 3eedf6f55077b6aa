// Enumeration of records that have left memory: read back from the file, and across the border
// between file and memory.
#include <gtest/gtest.h>

#include "engine/load_fixture.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

constexpr std::string_view kLateFlush =
    "flush_mode=PerTrans;flush_trans_num=99;flush_timeout=3600000;read_buffers_count=1;"
    "block_size=138;cache_type=Last1";

std::size_t BlocksInMemory(TestStorage& storage) {
    return StorageAccess::Blocks(storage.Object()).Blocks().size();
}

TEST(EnumerationFromDisk, DeliversEveryRangeAcrossFileAndMemory) {
    TestStorage storage(SmallCache(2));
    storage.InsertMany(40);
    storage.Settle();
    ASSERT_EQ(BlocksInMemory(storage), 2U);
    ExpectEveryRange(storage, ModelOf(storage.Records()), 40);
    EXPECT_EQ(storage.Texts(), Numbered(40));
}

TEST(EnumerationFromDisk, DeliversEveryRangeWithRecordsOfOneBlockEach) {
    TestStorage storage(SmallCache(1));
    for (u32 n = 1; n <= 12; ++n) {
        ASSERT_EQ(storage.Insert(OneBlock(std::to_string(n))), RC_OK);
    }
    storage.Settle();
    ASSERT_EQ(BlocksInMemory(storage), 1U);
    ExpectEveryRange(storage, ModelOf(storage.Records()), 12);
}

TEST(EnumerationFromDisk, DeliversEveryRangeWithGapsBetweenRevisions) {
    TestStorage storage(SmallCache(1));
    Model model;
    for (const i64 rev : {3, 4, 9, 10, 11, 20, 21, 27, 28, 30}) {
        ASSERT_EQ(storage.InsertP(rev, OneBlock(std::to_string(rev))), RC_OK);
        model[rev] = OneBlock(std::to_string(rev));
    }
    ExpectEveryRange(storage, model, 31);
    storage.Reopen();
    ExpectEveryRange(storage, model, 31);
}

TEST(EnumerationFromDisk, DeliversEveryRangeWithRecordsThatAreNotFlushed) {
    TestStorage storage(SmallCache(1));
    storage.InsertMany(12);
    storage.Reopen(kLateFlush);
    storage.InsertMany(12, "late");
    ASSERT_EQ(StorageAccess::FlushedRev(storage.Object()), 12);
    ExpectEveryRange(storage, ModelOf(storage.Records()), 24);
    EXPECT_EQ(storage.Records().size(), 24U);
}

TEST(EnumerationFromDisk, MakesOnePassForAllBlocksThatAreNotInMemory) {
    TestStorage storage(SmallCache(1));
    storage.InsertMany(40);
    storage.Settle();
    const i64 lowest = StorageAccess::Blocks(storage.Object()).Blocks().begin()->first;
    LogCapture log;
    EXPECT_EQ(storage.Records(3).size(), 38U);
    EXPECT_EQ(log.CountContaining("Enum from disk"), 1U);
    EXPECT_TRUE(log.Has("Enum from disk 3-" + std::to_string(lowest - 1))) << log;
}

TEST(EnumerationFromDisk, ReadsNothingForARangeInMemory) {
    TestStorage storage(SmallCache(1));
    storage.InsertMany(40);
    LogCapture log;
    EXPECT_EQ(RevsOf(storage.Records(40)), Revs({40}));
    EXPECT_EQ(log.CountContaining("Enum from disk"), 0U);
}

TEST(EnumerationFromDisk, ReturnsTheCallbacksResultAndStaysOpen) {
    TestStorage storage(SmallCache(1));
    storage.InsertMany(20);
    Revs seen;
    EXPECT_EQ(EnumerateWith(storage, 1, kEndOfRevs,
                            [&](const K9eReplRec& rec) {
                                seen.push_back(i64{rec.rev});
                                return rec.rev == 3 ? 5U : 0U;
                            }),
              5U);
    EXPECT_EQ(seen, Revs({1, 2, 3}));
    EXPECT_EQ(storage.State(), StorageState::kOpen);
}

TEST(EnumerationFromDisk, WithoutCallbackAnswersInvalidArgument) {
    TestStorage storage(SmallCache(1));
    storage.InsertMany(20);
    EXPECT_EQ(K9eReplStorageEnumRecords(storage.Handle(), 1, 2, nullptr, nullptr), RC_INVALID_ARG);
    EXPECT_EQ(storage.State(), StorageState::kOpen);
}

TEST(EnumerationFromDisk, StartsAtTheOldestRevision) {
    TestStorage storage(SmallCache(1));
    storage.InsertMany(20);
    StorageAccess::OldestRev(storage.Object()) = 7;
    EXPECT_EQ(RevsOf(storage.Records(1)), RevRange(7, 20));
}

TEST(EnumerationFromDisk, LeavesTheFilesLaterWritesInPlace) {
    TestStorage storage(SmallCache(1));
    for (u32 n = 1; n <= 20; ++n) {
        ASSERT_EQ(storage.Insert("r" + std::to_string(n)), RC_OK);
        ASSERT_EQ(storage.Texts(), Numbered(n));
    }
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Numbered(20));
}

// Nothing of ours brings that about; a walk ends all the same.
TEST(EnumerationFromDisk, EndsWhenTheIndexHasLostBlocksThatAreInMemory) {
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

// Memory holds one block, whose first record is `m_lowest`.
class RangeEndingAtTheLowestRevisionInMemory : public ::testing::Test {
  protected:
    void Fill() {
        m_storage.InsertMany(7);
        m_storage.Settle();
        ASSERT_EQ(BlocksInMemory(m_storage), 1U);
        m_lowest = StorageAccess::Blocks(m_storage.Object()).Blocks().begin()->first;
    }
    K9eReplBlock& Lowest() {
        return *StorageAccess::Blocks(m_storage.Object()).Blocks().begin()->second;
    }

    TestStorage m_storage{SmallCache(1)};
    LogCapture m_log;
    i64 m_lowest = 0;
};

TEST_F(RangeEndingAtTheLowestRevisionInMemory, IsReadFromTheFileWhenItIsThere) {
    Fill();
    EXPECT_EQ(RevsOf(m_storage.Records(1, m_lowest)), RevRange(1, m_lowest));
    EXPECT_TRUE(m_log.Has("Enum from disk 1-" + std::to_string(m_lowest))) << m_log;
}

TEST_F(RangeEndingAtTheLowestRevisionInMemory, GoesOnInMemoryWhenItEndsOneLater) {
    Fill();
    EXPECT_EQ(RevsOf(m_storage.Records(1, m_lowest + 1)), RevRange(1, m_lowest + 1));
    EXPECT_TRUE(m_log.Has("Enum from disk 1-" + std::to_string(m_lowest - 1))) << m_log;
}

TEST_F(RangeEndingAtTheLowestRevisionInMemory, StaysInTheFileWhenItEndsOneEarlier) {
    Fill();
    EXPECT_EQ(RevsOf(m_storage.Records(1, m_lowest - 1)), RevRange(1, m_lowest - 1));
    EXPECT_TRUE(m_log.Has("Enum from disk 1-" + std::to_string(m_lowest - 1))) << m_log;
}

TEST_F(RangeEndingAtTheLowestRevisionInMemory, IsDeliveredFromMemoryWhileItsWriteIsQueued) {
    Fill();
    Lowest().pendingWrites = 1;
    EXPECT_EQ(RevsOf(m_storage.Records(1, m_lowest)), RevRange(1, m_lowest));
    EXPECT_TRUE(m_log.Has("Enum from disk 1-" + std::to_string(m_lowest - 1))) << m_log;
    Lowest().pendingWrites = 0;
}

// An idle flush asks for shrinking; the next commit, which does not flush, carries it out.
TEST_F(RangeEndingAtTheLowestRevisionInMemory, IsDeliveredFromMemoryWhileItIsNotFlushed) {
    m_storage.Reopen(kLateFlush);
    for (const char* text : {"1", "2", "3"}) {
        ASSERT_EQ(m_storage.Insert(OneBlock(text)), RC_OK);
    }
    ASSERT_EQ(StorageAccess::Flush(m_storage.Object()), RC_OK);
    ASSERT_EQ(m_storage.WaitForWriter(), RC_OK);
    ASSERT_EQ(m_storage.Insert(OneBlock("4")), RC_OK);
    ASSERT_EQ(StorageAccess::Blocks(m_storage.Object()).Blocks().begin()->first, 4);
    EXPECT_EQ(RevsOf(m_storage.Records(1, 4)), Revs({1, 2, 3, 4}));
    EXPECT_TRUE(m_log.Has("Enum from disk 1-3")) << m_log;
}

// Blocks of 4 MiB, of which memory keeps the last.
class LargeRecords : public ::testing::Test {
  protected:
    static std::string Text(u32 size, char seed) {
        std::string text(size, '\0');
        for (u32 i = 0; i < size; ++i) {
            text[i] = static_cast<char>(seed + i % 97);
        }
        return text;
    }
    void Insert(u32 size) {
        m_texts.push_back(Text(size, static_cast<char>('a' + m_texts.size())));
        ASSERT_EQ(m_storage.Insert(m_texts.back()), RC_OK);
    }

    ScopedSystemCalls m_systemCalls;
    TestStorage m_storage{
        "flush_mode=PerTrans;flush_trans_num=1;flush_timeout=3600000;read_buffers_count=1;"
        "cache_type=Last1;block_size=4194304;memory_reserve=1"};
    Strings m_texts;
};

TEST_F(LargeRecords, OfMoreThanAReadBufferAreReadBackWhole) {
    const u32 buffer = ReadCacheManager::kBufferSize;
    for (const u32 size : {10U, 3 * 1024 * 1024U, 10U, buffer, buffer - 24, buffer - 23, 11U}) {
        Insert(size);
    }
    Insert(4194304 - 24);
    m_storage.Settle();
    ASSERT_EQ(BlocksInMemory(m_storage), 1U);
    EXPECT_EQ(m_storage.Texts(), m_texts);
    m_storage.Reopen();
    EXPECT_EQ(m_storage.Texts(), m_texts);
}

TEST_F(LargeRecords, WithoutMemoryForOneFailWithNoMemory) {
    Insert(3'000'000);
    Insert(3'000'000);
    m_storage.Settle();
    FailAlloc(1, 3'000'000);
    SeenRecords seen;
    EXPECT_EQ(m_storage.Enumerate(&seen), RC_NO_MEMORY);
    EXPECT_EQ(m_storage.State(), StorageState::kBroken);
}

TEST_F(LargeRecords, StayWhatTheyAreWhileTheirCallbackEnumerates) {
    Insert(3'000'000);
    Insert(10);
    Insert(4'000'000);
    const u32 rc = EnumerateWith(m_storage, 1, 1, [&](const K9eReplRec& rec) {
        EXPECT_EQ(m_storage.Texts(), m_texts);
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(rec.data), rec.dataSize), m_texts[0]);
        return RC_OK;
    });
    EXPECT_EQ(rc, RC_OK);
}

}  // namespace
}  // namespace k9erepl::test
