// Storages without an open storage file: in memory alone, or filled from the file that the setting
// names, which stays as it is; what a commit tells, and truncation.
#include <gtest/gtest.h>

#include "engine/flush_fixture.h"
#include "engine/load_fixture.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

class NoFlushLoad : public ::testing::Test {
  protected:
    // Opens a storage that is to be loaded from m_path, with blocks of 138 bytes.
    void Open() { Open("file=" + m_path + ";"); }
    void Open(const std::string& fileItem) {
        if (m_storage.IsOpen()) {
            m_storage.Close();
        }
        m_storage.Use(fileItem + std::string(kNoFile) + "block_size=138;read_buffers_count=1;");
        ASSERT_EQ(m_storage.TryOpen(), RC_OK) << m_log;
        m_log.Clear();
    }
    void MustLoad() { ASSERT_EQ(m_storage.TryLoad(), RC_OK) << m_log; }
    // The message names the connection string.
    void ExpectFailure(u32 rc, const std::string& text) {
        m_log.Clear();
        EXPECT_EQ(m_storage.TryLoad(), rc);
        EXPECT_EQ(m_log.CodeOf(text + ";conn-str " + m_storage.ConnStr()), rc) << m_log;
        EXPECT_EQ(m_storage.State(), StorageState::kClosed);
        EXPECT_TRUE(StorageAccess::Blocks(m_storage.Object()).Blocks().empty());
        EXPECT_TRUE(StorageAccess::Blocks(m_storage.Object()).Index().empty());
        EXPECT_EQ(m_storage.NextRev(), 1);
    }

    ScopedSystemCalls m_systemCalls;
    TempFolder m_folder;
    const std::string m_path = m_folder.File("data.edb");
    LogCapture m_log;
    TestStorage m_storage{"", Start::kNothing};
};

TEST_F(NoFlushLoad, OfMemoryStartsEmptyAndTouchesNoFile) {
    for (const std::string& more : {std::string(), "index_file=" + m_path + ";"}) {
        for (const std::string name : {":memory:", ":MEMORY:", ":Memory:"}) {
            Open("file=" + name + ";" + more);
            const u32 opened = CallCount(SystemCall::kOpen);
            EXPECT_EQ(m_storage.State(), StorageState::kClosed);
            MustLoad();
            EXPECT_EQ(m_storage.State(), StorageState::kOpen);
            EXPECT_TRUE(m_storage.Records().empty());
            m_storage.InsertMany(100);
            EXPECT_EQ(m_storage.Texts(), Numbered(100));
            EXPECT_EQ(m_storage.TryLoad(), RC_ALREADY);
            m_storage.Close();
            EXPECT_EQ(K9eReplStorageDelete(m_storage.ConnStr().c_str()), RC_OK);
            EXPECT_EQ(CallCount(SystemCall::kOpen), opened);
            EXPECT_EQ(CallCount(SystemCall::kWrite), 0U);
            EXPECT_EQ(CallCount(SystemCall::kCreateThread), 0U);
            EXPECT_EQ(CallCount(SystemCall::kRemove), 0U);
        }
    }
}

TEST_F(NoFlushLoad, OfMemoryFailsWhenItCannotBeTruncated) {
    Open("file=:memory:;");
    StorageAccess::TransDepth(m_storage.Object()) = 1;
    ExpectFailure(RC_IN_TRANSACTION, "Failed to truncate storage");
    StorageAccess::TransDepth(m_storage.Object()) = 0;
    MustLoad();
}

TEST_F(NoFlushLoad, OfAFileLoadsItAndLeavesItUntouched) {
    FileBuilder file;
    file.NewFile().Record(1, "gone").Record(2, "one", 9).Record(3, OneBlock("two")).Commit(0, 3);
    file.Commit(2, 3).Record(4, "lost").Zeros(50).Save(m_path);
    Open();
    MustLoad();
    EXPECT_EQ(m_storage.Records(), SeenRecords({{2, 9, "one"}, {3, 0, OneBlock("two")}}));
    EXPECT_EQ(m_storage.NextRev(), 4);
    void* solid = nullptr;
    EXPECT_EQ(K9eReplStorageGetLLStorage(m_storage.Handle(), &solid), RC_FILE_NOT_OPEN);
    m_storage.InsertMany(20);
    EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(2, 23));
    m_storage.Close();
    EXPECT_EQ(ReadBytes(m_path), file.Bytes());
    EXPECT_FALSE(Exists(m_path + "-idx"));
    EXPECT_EQ(CallCount(SystemCall::kWrite), 0U);
}

TEST_F(NoFlushLoad, OfAFileUsesItsIndexAndDropsAWrongOne) {
    FileBuilder().NewFile().Record(1, "one").Commit(0, 1).Save(m_path);
    for (const auto& [rev, text] :
         {std::pair<i64, const char*>{1, "Index test passed; start loading from offset 1056"},
          {5, "Index test failed at offset 1056"}}) {
        const std::vector<u8> index = IndexBytes({{rev, 1056}});
        WriteBytes(m_path + "-idx", index);
        Open();
        MustLoad();
        EXPECT_TRUE(m_log.Has(text)) << m_log;
        EXPECT_EQ(RevsOf(m_storage.Records()), Revs({1}));
        EXPECT_EQ(ReadBytes(m_path + "-idx"), index);
    }
}

TEST_F(NoFlushLoad, OfAFileThatCannotBeReadFailsAndMayBeTriedAgain) {
    const std::string init = "Failed to init temporary solid storage";
    const std::string scan = "Failed to enum temporary solid storage rec to load";
    Open("file=;");
    ExpectFailure(RC_INVALID_ARG, "Failed to get file parameter value to load data");
    Open();
    ExpectFailure(RC_SYSTEM_ERROR, init);
    WriteBytes(m_path, std::vector<u8>(2000, 7));
    ExpectFailure(RC_INVALID_ARG, init);
    FileBuilder().Header().Record(1, "no commit block first").Commit(0, 1).Save(m_path);
    ExpectFailure(RC_FILE_CORRUPT, scan);
    FileBuilder().NewFile().Record(1, std::string(115, 'x')).Commit(0, 1).Save(m_path);
    ExpectFailure(RC_INVALID_ARG, scan);
    EXPECT_TRUE(m_log.Has("Failed to insert rec while load;rev 1")) << m_log;
    FileBuilder().NewFile().Record(1, "one").Record(2, "two").Commit(0, 2).Save(m_path);
    FailRead(2);  // the header's read succeeds
    ExpectFailure(RC_SYSTEM_ERROR, scan);
    MustLoad();
    EXPECT_EQ(RevsOf(m_storage.Records()), Revs({1, 2}));
}

// --- Commits and truncation ----------------------------------------------------------------------

// A loaded storage in memory.
struct InMemory : TestStorage {
    InMemory() : TestStorage(kInMemory, Start::kNothing) { EXPECT_EQ(TryOpenAndLoad(), RC_OK); }
};

TEST(NoFlushMode, EveryCommitCallsOnFlushThenOnWriteToFileWithTheLastRevision) {
    std::string order;
    Notified flushed([&](i64 rev) { order += "F" + std::to_string(rev); });
    Notified written([&](i64 rev) { order += "W" + std::to_string(rev); });
    InMemory storage;
    flushed.SetAsOnFlush(storage);
    written.SetAsOnWriteToFile(storage);
    storage.InsertCommitted({});
    storage.InsertCommitted({"one", "two"});
    EXPECT_EQ(order, "F0W0F2W2");
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("gone"), RC_OK);
    ASSERT_EQ(storage.Rollback(), RC_OK);
    EXPECT_EQ(order, "F0W0F2W2");
    EXPECT_EQ(storage.Texts(), Strings({"one", "two"}));
    EXPECT_EQ(storage.NextRev(), 3);
    EXPECT_FALSE(Exists(storage.Path()));
}

TEST(NoFlushMode, NestedCommitsOfACallbackTellTooAndAreTimedAsOne) {
    const ScopedSystemCalls systemCalls;
    SetPerformanceFrequency(1000000);
    SetPerformanceCounter(500);
    Notified flushed;
    InMemory storage;
    flushed.Does([&](i64 rev) {
        AdvancePerformanceCounter(10);
        if (rev < 3) {
            EXPECT_EQ(storage.Insert("nested"), RC_OK);
        }
    });
    flushed.SetAsOnFlush(storage);
    storage.InsertCommitted({"one"});
    EXPECT_EQ(flushed.Calls(), Revs({1, 2, 3}));
    EXPECT_EQ(storage.Texts(), Strings({"one", "nested", "nested"}));
    const LogCapture log({"***TP***"});
    storage.Close();
    EXPECT_EQ(log.CountContaining("OnFlushCb: 30.00 mcs  "), 1U) << log;
    EXPECT_EQ(log.CountContaining("has already started"), 0U) << log;
}

TEST(NoFlushMode, ATransactionBegunByACallbackStaysOpen) {
    Notified written;
    InMemory storage;
    written.Does([&](i64) { EXPECT_EQ(storage.Begin(), RC_OK); });
    written.SetAsOnWriteToFile(storage);
    storage.InsertCommitted({"one"});
    ASSERT_EQ(storage.Insert("two"), RC_OK);
    EXPECT_EQ(storage.Rollback(), RC_OK);
    EXPECT_EQ(storage.Texts(), Strings({"one"}));
}

}  // namespace
}  // namespace k9erepl::test
