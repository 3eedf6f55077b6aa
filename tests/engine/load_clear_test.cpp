// Loading files whose commit blocks clear older revisions: what is served afterwards, where the
// first block begins, and that the index changes nothing of it.
#include <gtest/gtest.h>

#include "engine/load_fixture.h"
#include "platform/file_names.h"
#include "support/fault_injection.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

// What a load has made of the file. Where its blocks begin may differ with the index.
struct Loaded {
    SeenRecords records;
    i64 nextRev = 0;
    i64 oldestRev = 0;
    bool beginMoved = false;

    bool operator==(const Loaded&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Loaded& loaded) {
    out << "next " << loaded.nextRev << " oldest " << loaded.oldestRev << " moved "
        << loaded.beginMoved << " records";
    for (const SeenRecord& record : loaded.records) {
        out << ' ' << record.rev;
    }
    return out;
}

// Blocks of two records of 40 bytes data (64 with their head), committed pair by pair: block n
// begins with record 2n - 1 at BlockOffset(n). The parameter is the cache.
class LoadOfClearedFile : public ::testing::TestWithParam<const char*> {
  protected:
    static constexpr i64 kRecord = 64;
    static constexpr i64 BlockOffset(i64 n) { return 1056 + (n - 1) * (2 * kRecord + 32); }

    LoadOfClearedFile() {
        m_storage.Use(std::string(kEachCommit) + GetParam());
        m_file.NewFile();
    }
    static std::string Text(i64 rev) {
        std::string text = "r" + std::to_string(rev);
        text.resize(40, '.');
        return text;
    }
    FileBuilder& Records(i64 first, i64 last) {
        for (i64 rev = first; rev <= last; ++rev) {
            m_file.Record(rev, Text(rev));
        }
        return m_file;
    }
    // Blocks `first` to `last`, each with its commit block.
    FileBuilder& Blocks(i64 first, i64 last, i64 clearRev = 0) {
        for (i64 n = first; n <= last; ++n) {
            Records(2 * n - 1, 2 * n).Commit(clearRev, 2 * n);
        }
        return m_file;
    }
    void Load() {
        m_file.Zeros(8).Save(m_storage.Path());
        ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK) << m_log;
    }
    Loaded Now() {
        CK9eReplStorage& object = m_storage.Object();
        return {.records = m_storage.Records(),
                .nextRev = m_storage.NextRev(),
                .oldestRev = StorageAccess::OldestRev(object),
                .beginMoved = StorageAccess::BeginMoved(object)};
    }
    Revs RevsNow() { return RevsOf(m_storage.Records()); }
    // The index was saved by the first load: a second one through it, and a life that goes on.
    void ExpectSameWithIndexAndLater() {
        EXPECT_EQ(ReadIndexEntries(m_storage), EntriesInMemory(m_storage));
        Loaded loaded = Now();
        m_storage.Reopen();
        EXPECT_EQ(Now(), loaded) << m_log;
        ASSERT_EQ(m_storage.Insert(Text(loaded.nextRev)), RC_OK);
        loaded.records.push_back({loaded.nextRev, 0, Text(loaded.nextRev)});
        EXPECT_EQ(m_storage.Records(), loaded.records);
        m_storage.Reopen();
        EXPECT_EQ(m_storage.Records(), loaded.records);
        EXPECT_EQ(Now().oldestRev, loaded.oldestRev);
    }
    i64 FirstRev() {
        i64 rev = 0;
        EXPECT_EQ(m_storage.DataSource().GetFirstRev(0, &rev), RC_OK);
        return rev;
    }

    TestStorage m_storage{"", Start::kNothing};
    FileBuilder m_file;
    LogCapture m_log;
};

TEST_P(LoadOfClearedFile, BelowTheFirstRecordDropsNothing) {
    Blocks(2, 6).Commit(2, 12);
    Load();
    EXPECT_EQ(RevsNow(), RevRange(3, 12));
    EXPECT_EQ(Now().oldestRev, 2);
    EXPECT_FALSE(Now().beginMoved);
    ExpectSameWithIndexAndLater();
}

TEST_P(LoadOfClearedFile, InsideABlockCutsIt) {
    Blocks(1, 6).Commit(4, 12);
    Load();
    EXPECT_TRUE(m_log.Has("Processing commit block with minRev 4; old minRev 0")) << m_log;
    EXPECT_TRUE(m_log.Has("Squeeze enum after load; minRev: 4, newFirstRecOffset: " +
                          std::to_string(BlockOffset(2) + kRecord) +
                          ", commitOffset: " + std::to_string(BlockOffset(3) - 32) + ", recSz: 64"))
        << m_log;
    EXPECT_EQ(RevsNow(), RevRange(4, 12));
    EXPECT_EQ(FirstRev(), 4);
    EXPECT_EQ(EntriesInMemory(m_storage).front(),
              (std::pair<i64, i64>(4, BlockOffset(2) + kRecord)));
    EXPECT_TRUE(Now().beginMoved);
    ExpectSameWithIndexAndLater();
}

TEST_P(LoadOfClearedFile, AtTheBeginningOfABlockDropsTheBlocksBefore) {
    Blocks(1, 6).Commit(5, 12);
    Load();
    EXPECT_EQ(m_log.CountContaining("Squeeze enum after load"), 0U);
    EXPECT_EQ(RevsNow(), RevRange(5, 12));
    EXPECT_EQ(EntriesInMemory(m_storage).front(), (std::pair<i64, i64>(5, BlockOffset(3))));
    EXPECT_TRUE(Now().beginMoved);
    ExpectSameWithIndexAndLater();
}

TEST_P(LoadOfClearedFile, InTheLastBlockLeavesIt) {
    Blocks(1, 6).Commit(12, 12);
    Load();
    EXPECT_EQ(RevsNow(), Revs({12}));
    EXPECT_EQ(EntriesInMemory(m_storage), IndexEntries({{12, BlockOffset(6) + kRecord}}));
    ExpectSameWithIndexAndLater();
}

TEST_P(LoadOfClearedFile, AgainAndAgainFollowsTheLastCommitBlock) {
    Blocks(1, 3).Commit(2, 6);
    Blocks(4, 6, 2).Commit(7, 12).Commit(8, 12);
    Blocks(7, 8, 8);
    Load();
    EXPECT_EQ(RevsNow(), RevRange(8, 16));
    EXPECT_EQ(FirstRev(), 8);
    ExpectSameWithIndexAndLater();
}

TEST_P(LoadOfClearedFile, InAGapBeginsWithTheNextRecord) {
    Blocks(1, 2);
    Blocks(6, 8).Commit(8, 16);
    Load();
    EXPECT_EQ(RevsNow(), RevRange(11, 16));
    EXPECT_EQ(Now().oldestRev, 8);
    EXPECT_EQ(FirstRev(), 11);
    EXPECT_TRUE(Now().beginMoved);
    ExpectSameWithIndexAndLater();
}

TEST_P(LoadOfClearedFile, InAGapInsideABlockBeginsWithTheNextRecord) {
    m_file.Record(1, Text(1)).Record(9, Text(9)).Commit(0, 9).Record(10, Text(10)).Commit(5, 10);
    Load();
    EXPECT_EQ(RevsNow(), Revs({9, 10}));
    EXPECT_EQ(EntriesInMemory(m_storage).front(), (std::pair<i64, i64>(9, 1056 + kRecord)));
    ExpectSameWithIndexAndLater();
}

TEST_P(LoadOfClearedFile, BehindTheLastRecordLeavesNothing) {
    Blocks(1, 6).Commit(13, 14);
    Load();
    EXPECT_TRUE(RevsNow().empty());
    EXPECT_TRUE(EntriesInMemory(m_storage).empty());
    EXPECT_EQ(Now().nextRev, 15);
    EXPECT_FALSE(Now().beginMoved);
    ExpectSameWithIndexAndLater();
}

TEST_P(LoadOfClearedFile, BeyondTheCommitRevisionEmptiesMemoryBeforeTheRecordsAfterIt) {
    Blocks(1, 3).Commit(9, 8);
    Blocks(5, 6, 9);
    Load();
    EXPECT_EQ(RevsNow(), RevRange(9, 12));
    EXPECT_EQ(Now().oldestRev, 9);
    EXPECT_TRUE(Now().beginMoved);
    ExpectSameWithIndexAndLater();
}

TEST_P(LoadOfClearedFile, BeyondTheCommitRevisionPassesOverRecordsThatFollowBelowIt) {
    Blocks(1, 3).Commit(12, 6);
    Blocks(4, 7, 12);
    Load();
    EXPECT_EQ(RevsNow(), RevRange(12, 14));
    EXPECT_EQ(FirstRev(), 12);
    ExpectSameWithIndexAndLater();
}

TEST_P(LoadOfClearedFile, WithUncommittedDataBehindTheClearingDropsBoth) {
    Blocks(1, 6).Commit(4, 12);
    Records(13, 17);
    Load();
    EXPECT_EQ(RevsNow(), RevRange(4, 12));
    EXPECT_EQ(Now().nextRev, 13);
    ExpectSameWithIndexAndLater();
}

TEST_P(LoadOfClearedFile, WithAFallingClearRevisionEndsBeforeIt) {
    Blocks(1, 3).Commit(4, 6);
    Blocks(4, 4, 3);
    Load();
    EXPECT_EQ(RevsNow(), RevRange(4, 6));
    EXPECT_EQ(Now().nextRev, 7);
    ExpectSameWithIndexAndLater();
}

TEST_P(LoadOfClearedFile, ThatWasSqueezedBeginsAtItsFirstItem) {
    m_file = FileBuilder();
    m_file.Header().Commit(0, 5);
    Records(5, 6).Commit(5, 6);
    Blocks(4, 6, 5);
    Load();
    EXPECT_EQ(RevsNow(), RevRange(5, 12));
    EXPECT_FALSE(Now().beginMoved);
    ExpectSameWithIndexAndLater();
}

TEST_P(LoadOfClearedFile, DeliversEveryRange) {
    Blocks(1, 8).Commit(6, 16);
    Blocks(9, 10, 6);
    Load();
    Model model = ModelOf(m_storage.Records());
    EXPECT_EQ(model.size(), 15U);
    ExpectEveryRange(m_storage, model, 21);
    m_storage.Reopen();
    ExpectEveryRange(m_storage, model, 21);
}

INSTANTIATE_TEST_SUITE_P(Caches, LoadOfClearedFile,
                         ::testing::Values("cache_type=AllInMem", "cache_type=Last1",
                                           "cache_type=Last2", "cache_type=Last100"),
                         [](const auto& cache) { return std::string(cache.param).substr(11); });

// Record 1 is cleared and shares its block with record 2; the last read of a load looks for that.
class SearchForTheFirstKeptRecord : public ::testing::Test {
  protected:
    SearchForTheFirstKeptRecord() {
        m_file.NewFile().Record(1, "one").Record(2, "two").Commit(0, 2).Commit(2, 2).Zeros(8);
        m_file.Save(m_storage.Path());
    }
    // The reads of a load that succeeds; the storage is open again afterwards, without an index.
    u32 CountReads() {
        EXPECT_EQ(m_storage.TryOpen(), RC_OK);
        const u32 before = CallCount(SystemCall::kRead);
        EXPECT_EQ(m_storage.TryLoad(), RC_OK);
        const u32 reads = CallCount(SystemCall::kRead) - before;
        m_storage.Close();
        EXPECT_TRUE(platform::RemoveFile(IndexPath(m_storage)));
        EXPECT_EQ(m_storage.TryOpen(), RC_OK);
        return reads;
    }

    ScopedSystemCalls m_systemCalls;
    LogCapture m_log;
    TestStorage m_storage{SmallCache(1), Start::kNothing};
    FileBuilder m_file;
};

TEST_F(SearchForTheFirstKeptRecord, ThatFailsClosesTheStorageAndMayBeTriedAgain) {
    FailRead(CountReads());
    EXPECT_EQ(m_storage.TryLoad(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf("Enum from disk failed after load"), RC_SYSTEM_ERROR) << m_log;
    EXPECT_EQ(m_storage.State(), StorageState::kClosed);
    EXPECT_TRUE(StorageAccess::Blocks(m_storage.Object()).Blocks().empty());
    EXPECT_TRUE(StorageAccess::Blocks(m_storage.Object()).Index().empty());
    ASSERT_EQ(m_storage.TryLoad(), RC_OK);
    EXPECT_EQ(m_storage.Texts(), Strings({"two"}));
}

}  // namespace
}  // namespace k9erepl::test
