// Loading files whose commit blocks clear older revisions: what is served afterwards, where the
// first block begins, and that the index changes nothing of it and saves reading.
#include <gtest/gtest.h>

#include "engine/clear_fixture.h"
#include "platform/file_names.h"
#include "support/fault_injection.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

constexpr i64 kRecord = 64;  // size of the records below

// Blocks of two records, committed pair by pair: block n begins with record 2n - 1.
constexpr i64 BlockOffset(i64 n) {
    return 1056 + (n - 1) * (2 * kRecord + kCommitBlockSize);
}

// A storage file of such blocks, in words.
struct BlockFile : FileBuilder {
    BlockFile() { NewFile(); }
    BlockFile& Records(i64 first, i64 last) {
        for (i64 rev = first; rev <= last; ++rev) {
            Record(rev, ClearableStorage::TextOf(rev));
        }
        return *this;
    }
    // Blocks `first` to `last`, each with its commit block.
    BlockFile& Blocks(i64 first, i64 last, i64 clearRev = 0) {
        for (i64 n = first; n <= last; ++n) {
            Records(2 * n - 1, 2 * n).Commit(clearRev, 2 * n);
        }
        return *this;
    }
    BlockFile& Clear(i64 clearRev, i64 commitRev) {
        Commit(clearRev, commitRev);
        return *this;
    }
};

struct ClearedFile {
    const char* name;
    BlockFile file;
    Revs revs;
    i64 oldestRev;
    i64 firstOffset;  // of the first block, whose key is the first revision; 0: nothing is left
    bool beginMoved = true;
};

BlockFile SqueezedFile() {
    BlockFile file;
    static_cast<FileBuilder&>(file) = FileBuilder();
    file.Header().Commit(0, 5);
    return file.Records(5, 6).Clear(5, 6).Blocks(4, 6, 5);
}

std::vector<ClearedFile> ClearedFiles() {
    const i64 commit = kCommitBlockSize;
    return {{"below the first record", BlockFile().Blocks(2, 6).Clear(2, 12), RevRange(3, 12), 2,
             1056, false},
            {"inside a block", BlockFile().Blocks(1, 6).Clear(4, 12), RevRange(4, 12), 4,
             BlockOffset(2) + kRecord},
            {"at the beginning of a block", BlockFile().Blocks(1, 6).Clear(5, 12), RevRange(5, 12),
             5, BlockOffset(3)},
            {"in the last block",
             BlockFile().Blocks(1, 6).Clear(12, 12),
             {12},
             12,
             BlockOffset(6) + kRecord},
            {"again and again",
             BlockFile().Blocks(1, 3).Clear(2, 6).Blocks(4, 6, 2).Clear(7, 12).Clear(8, 12).Blocks(
                 7, 8, 8),
             RevRange(8, 16), 8, BlockOffset(4) + kRecord + commit},
            {"in a gap", BlockFile().Blocks(1, 2).Blocks(6, 8).Clear(8, 16), RevRange(11, 16), 8,
             BlockOffset(3)},
            {"in a gap inside a block",
             BlockFile().Records(1, 1).Records(9, 9).Clear(0, 9).Records(10, 10).Clear(5, 10),
             {9, 10},
             5,
             1056 + kRecord},
            {"behind the last record", BlockFile().Blocks(1, 6).Clear(13, 14), {}, 13, 0, false},
            {"beyond the commit revision, with records after it",
             BlockFile().Blocks(1, 3).Clear(9, 8).Blocks(5, 6, 9), RevRange(9, 12), 9,
             BlockOffset(4) + commit},
            {"beyond the commit revision, with records below it",
             BlockFile().Blocks(1, 3).Clear(12, 6).Blocks(4, 7, 12), RevRange(12, 14), 12,
             BlockOffset(6) + commit + kRecord},
            {"before uncommitted data", BlockFile().Blocks(1, 6).Clear(4, 12).Records(13, 17),
             RevRange(4, 12), 4, BlockOffset(2) + kRecord},
            {"with a falling clear revision", BlockFile().Blocks(1, 3).Clear(4, 6).Blocks(4, 4, 3),
             RevRange(4, 6), 4, BlockOffset(2) + kRecord},
            {"squeezed", SqueezedFile(), RevRange(5, 12), 5, 1056, false}};
}

// The parameter is the cache.
class LoadOfClearedFile : public ::testing::TestWithParam<const char*> {
  protected:
    static void ExpectServed(TestStorage& storage, const ClearedFile& wanted) {
        EXPECT_EQ(RevsOf(storage.Records()), wanted.revs);
        EXPECT_EQ(storage.OldestRev(), wanted.oldestRev);
        EXPECT_EQ(StorageAccess::BeginMoved(storage.Object()), wanted.beginMoved);
        if (!wanted.revs.empty()) {
            EXPECT_EQ(storage.FirstRev(), wanted.revs.front());
            EXPECT_EQ(EntriesInMemory(storage).front(),
                      std::pair(wanted.revs.front(), wanted.firstOffset));
        }
        const i64 lastRev = wanted.revs.empty() ? 1 : wanted.revs.back();
        ExpectEveryRange(storage, ModelOf(storage.Records()), lastRev);
    }
};

INSTANTIATE_TEST_SUITE_P(Caches, LoadOfClearedFile,
                         ::testing::Values("cache_type=AllInMem", "cache_type=Last1",
                                           "cache_type=Last2", "cache_type=Last100"),
                         [](const auto& cache) { return std::string(cache.param).substr(11); });

// The first load saves the index, through which the second one goes; then the storage goes on.
TEST_P(LoadOfClearedFile, ServesWhatIsKeptWithAndWithoutIndexAndGoesOn) {
    for (ClearedFile& wanted : ClearedFiles()) {
        SCOPED_TRACE(wanted.name);
        TestStorage storage(std::string(kEachCommit) + GetParam(), Start::kNothing);
        wanted.file.Zeros(8).Save(storage.Path());
        ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
        ExpectServed(storage, wanted);
        EXPECT_EQ(ReadIndexEntries(storage), EntriesInMemory(storage));
        storage.Reopen();
        EXPECT_EQ(RevsOf(storage.Records()), wanted.revs);
        EXPECT_EQ(storage.OldestRev(), wanted.oldestRev);
        wanted.revs.push_back(storage.NextRev());
        EXPECT_EQ(wanted.revs.back(), wanted.oldestRev == 13 ? 15 : *(wanted.revs.end() - 2) + 1);
        ASSERT_EQ(storage.Insert("next"), RC_OK);
        EXPECT_EQ(RevsOf(storage.Records()), wanted.revs);
        storage.Reopen();
        EXPECT_EQ(RevsOf(storage.Records()), wanted.revs);
        EXPECT_EQ(storage.OldestRev(), wanted.oldestRev);
    }
}

TEST(LoadOfABlockThatIsCut, SaysSo) {
    TestStorage storage(SmallCache(2), Start::kNothing);
    BlockFile().Blocks(1, 6).Clear(4, 12).Save(storage.Path());
    const LogCapture log;
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    EXPECT_TRUE(log.Has("Processing commit block with minRev 4; old minRev 0")) << log;
    EXPECT_TRUE(log.Has("Squeeze enum after load; minRev: 4, newFirstRecOffset: " +
                        std::to_string(BlockOffset(2) + kRecord) + ", commitOffset: " +
                        std::to_string(BlockOffset(3) - kCommitBlockSize) + ", recSz: 64"))
        << log;
    storage.Close();
    BlockFile().Blocks(1, 6).Clear(5, 12).Save(storage.Path());
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    EXPECT_EQ(log.CountContaining("Squeeze enum after load"), 1U) << "nothing is cut";
}

// Record 1 is cleared and shares its block with record 2; the last read of a load looks for that.
TEST(SearchForTheFirstKeptRecord, ThatFailsClosesTheStorageAndMayBeTriedAgain) {
    const ScopedSystemCalls systemCalls;
    const LogCapture log;
    TestStorage storage(SmallCache(1), Start::kNothing);
    FileBuilder()
        .NewFile()
        .Record(1, "one")
        .Record(2, "two")
        .Commit(0, 2)
        .Commit(2, 2)
        .Zeros(8)
        .Save(storage.Path());
    ASSERT_EQ(storage.TryOpen(), RC_OK);
    const u32 before = CallCount(SystemCall::kRead);
    ASSERT_EQ(storage.TryLoad(), RC_OK);
    const u32 reads = CallCount(SystemCall::kRead) - before;
    storage.Close();
    ASSERT_TRUE(platform::RemoveFile(IndexPath(storage)));
    ASSERT_EQ(storage.TryOpen(), RC_OK);
    FailRead(reads);
    EXPECT_EQ(storage.TryLoad(), RC_SYSTEM_ERROR);
    EXPECT_EQ(log.CodeOf("Enum from disk failed after load"), RC_SYSTEM_ERROR) << log;
    EXPECT_EQ(storage.State(), StorageState::kClosed);
    EXPECT_TRUE(StorageAccess::Blocks(storage.Object()).Blocks().empty());
    EXPECT_TRUE(StorageAccess::Blocks(storage.Object()).Index().empty());
    ASSERT_EQ(storage.TryLoad(), RC_OK);
    EXPECT_EQ(storage.Texts(), Strings({"two"}));
}

// --- A block whose lowest revision is not that of its first record -------------------------------

// After a clear into a gap between revisions, and behind a revision that was used up without a
// record, the index names the record that is there, and a load reads the end of the file only. Two
// records of 49000 bytes in each block; 100 of them are 5 MB.
class LoadOfACutBlock : public ::testing::Test {
  protected:
    void Put(i64 first, i64 last) {
        const std::string text(49000, 'x');
        for (i64 rev = first; rev <= last; ++rev) {
            ASSERT_EQ(m_storage.InsertP(rev, text), RC_OK);
        }
    }
    // Uses one revision up; the block that was to take the record stays without one.
    void Refuse() { EXPECT_EQ(m_storage.Insert(std::string(100001, 'x')), RC_INVALID_ARG); }

    // The first reopening finds the index of the clear, or none.
    void ExpectToReadLittle() {
        const Revs content = RevsOf(m_storage.Records());
        for (int i = 0; i < 2; ++i) {
            m_storage.Close();
            m_log.Clear();
            m_meter.Restart();
            ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK) << m_log;
            m_bytesOfLoad = m_meter.Bytes();
            EXPECT_EQ(m_log.CountContaining("Index test failed"), 0U);
            EXPECT_EQ(m_log.CountContaining("loading without it"), 0U);
            EXPECT_EQ(RevsOf(m_storage.Records()), content);
        }
        EXPECT_EQ(m_log.CountContaining("Index test passed"), 1U);
        EXPECT_LT(m_bytesOfLoad, 1'000'000U);
        EXPECT_EQ(ReadIndexEntries(m_storage), EntriesInMemory(m_storage));
    }

    ReadMeter m_meter;
    TestStorage m_storage{
        "block_size=100000;cache_type=Last2;flush_mode=PerTrans;flush_trans_num=1;"
        "flush_timeout=3600000;read_buffers_count=1;"};
    LogCapture m_log;
    u64 m_bytesOfLoad = 0;
};

class LoadAfterAClearIntoAGap : public LoadOfACutBlock, public ::testing::WithParamInterface<u32> {
  protected:
    void ClearAndExpectToReadLittle(i64 rev, i64 first, i64 last) {
        ASSERT_EQ(m_storage.Clear(rev, GetParam()), RC_OK);
        EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(first, last));
        ExpectToReadLittle();
    }
};
INSTANTIATE_TEST_SUITE_P(Mode, LoadAfterAClearIntoAGap,
                         ::testing::Values(kLogical, kSqueeze, kSqueezeBackup));

TEST_P(LoadAfterAClearIntoAGap, AtABlocksEndReadsLittle) {
    ASSERT_EQ(m_storage.Begin(), RC_OK);
    Put(1, 100);
    Put(201, 210);
    ASSERT_EQ(m_storage.Commit(), RC_OK);
    ClearAndExpectToReadLittle(150, 201, 210);
}

TEST_P(LoadAfterAClearIntoAGap, InsideABlockAndOnceMoreReadsLittle) {
    Put(1, 49);
    Put(101, 150);
    Put(201, 210);
    ASSERT_EQ(m_storage.Clear(75, GetParam()), RC_OK);
    ClearAndExpectToReadLittle(175, 201, 210);
    ClearAndExpectToReadLittle(204, 204, 210);
}

TEST_P(LoadAfterAClearIntoAGap, OfRevisionsThatWereUsedUpReadsLittle) {
    Put(1, 100);
    ASSERT_EQ(m_storage.Begin(), RC_OK);
    Refuse();
    Refuse();
    Put(103, 110);
    ASSERT_EQ(m_storage.Commit(), RC_OK);
    ClearAndExpectToReadLittle(102, 103, 110);
}

TEST_F(LoadOfACutBlock, BehindARefusedRecordReadsLittle) {
    Put(1, 50);
    ASSERT_EQ(m_storage.Begin(), RC_OK);
    Refuse();
    Put(52, 100);
    ASSERT_EQ(m_storage.Commit(), RC_OK);
    ExpectToReadLittle();
}

TEST_F(LoadOfACutBlock, WhoseFirstRecordWasRolledBackReadsLittle) {
    Put(1, 50);
    ASSERT_EQ(m_storage.Begin(), RC_OK);
    Refuse();
    ASSERT_EQ(m_storage.Commit(), RC_OK);
    ASSERT_EQ(m_storage.Begin(), RC_OK);
    Put(52, 53);
    ASSERT_EQ(m_storage.Rollback(), RC_OK);
    Put(60, 100);
    ExpectToReadLittle();
}

}  // namespace
}  // namespace k9erepl::test
