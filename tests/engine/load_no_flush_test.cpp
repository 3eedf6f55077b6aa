// Loading storages without an open storage file: in memory alone, or filled from the file that the
// setting names, which stays as it is.
#include <gtest/gtest.h>

#include "engine/load_fixture.h"
#include "platform/file_names.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

constexpr std::string_view kSmallBlocks =
    "cache_type=AllInMem;flush_mode=NoFlush;block_size=138;read_buffers_count=1;";

class NoFlushLoad : public ::testing::Test {
  protected:
    // Opens with `fileItem` ("file=...;" or nothing) in front of the settings.
    void Open(const std::string& fileItem) {
        m_connStr = fileItem + std::string(kSmallBlocks);
        ASSERT_EQ(K9eReplStorageOpen(m_connStr.c_str(), &m_handle), RC_OK) << m_log;
        m_log.Clear();
    }
    ~NoFlushLoad() override {
        if (m_handle != nullptr) {
            EXPECT_EQ(K9eReplStorageClose(m_handle), RC_OK);
        }
    }
    u32 Load() { return K9eReplStorageLoad(m_handle); }
    std::string FileItem() const { return "file=" + Path() + ";"; }
    std::string Path() const { return m_folder.File("data.edb"); }
    CK9eReplStorage& Object() {
        return static_cast<CK9eReplStorage&>(*static_cast<IK9eReplStorage*>(m_handle));
    }
    SeenRecords Records() {
        SeenRecords records;
        EXPECT_EQ(K9eReplStorageEnumRecords(m_handle, 0, kEndOfRevs, CollectRecord, &records),
                  RC_OK);
        return records;
    }
    u32 Insert(std::string_view data) {
        Record record(data);
        return K9eReplStorageInsert(m_handle, record.Get());
    }
    i64 NextRev() {
        i64 rev = 0;
        EXPECT_EQ(K9eReplStorageGetNextRev(m_handle, &rev), RC_OK);
        return rev;
    }
    void ExpectClosedAndEmpty() {
        EXPECT_EQ(StorageAccess::State(Object()), StorageState::kClosed);
        EXPECT_TRUE(StorageAccess::Blocks(Object()).Blocks().empty());
        EXPECT_TRUE(StorageAccess::Blocks(Object()).Index().empty());
        EXPECT_EQ(NextRev(), 1);
    }

    ScopedSystemCalls m_systemCalls;
    TempFolder m_folder;
    LogCapture m_log;
    std::string m_connStr;
    void* m_handle = nullptr;
};

TEST_F(NoFlushLoad, OfMemoryStartsEmpty) {
    Open("file=:memory:;");
    EXPECT_EQ(StorageAccess::State(Object()), StorageState::kClosed);
    ASSERT_EQ(Load(), RC_OK);
    EXPECT_EQ(StorageAccess::State(Object()), StorageState::kOpen);
    EXPECT_TRUE(Records().empty());
    EXPECT_EQ(NextRev(), 1);
    ASSERT_EQ(Insert("one"), RC_OK);
    EXPECT_EQ(RevsOf(Records()), Revs({1}));
    EXPECT_EQ(Load(), RC_ALREADY);
}

TEST_F(NoFlushLoad, OfMemoryTouchesNoFile) {
    for (const std::string& more : {std::string(), "index_file=" + Path() + ";"}) {
        for (const std::string name : {":memory:", ":MEMORY:", ":Memory:"}) {
            Open("file=" + name + ";" + more);
            const u32 opened = CallCount(SystemCall::kOpen);
            ASSERT_EQ(Load(), RC_OK);
            ASSERT_EQ(Insert("one"), RC_OK);
            EXPECT_EQ(CallCount(SystemCall::kOpen), opened);
            EXPECT_EQ(CallCount(SystemCall::kCreateThread), 0U);
            EXPECT_EQ(K9eReplStorageClose(m_handle), RC_OK);
            EXPECT_EQ(K9eReplStorageDelete(m_connStr.c_str()), RC_OK);
            EXPECT_EQ(CallCount(SystemCall::kRemove), 0U);
        }
    }
    m_handle = nullptr;
}

TEST_F(NoFlushLoad, AfterATruncationIsRefused) {
    Open("file=:memory:;");
    ASSERT_EQ(K9eReplStorageTruncate(m_handle), RC_OK);
    EXPECT_EQ(Load(), RC_ALREADY);
}

TEST_F(NoFlushLoad, OfMemoryFailsWhenItCannotBeTruncated) {
    Open("file=:memory:;");
    StorageAccess::TransDepth(Object()) = 1;
    EXPECT_EQ(Load(), RC_IN_TRANSACTION);
    EXPECT_EQ(m_log.CodeOf("Failed to truncate storage;conn-str " + m_connStr), RC_IN_TRANSACTION)
        << m_log;
    ExpectClosedAndEmpty();
    StorageAccess::TransDepth(Object()) = 0;
    ASSERT_EQ(Load(), RC_OK);
}

TEST_F(NoFlushLoad, WithoutAFileParameterFails) {
    Open("");
    EXPECT_EQ(Load(), RC_INVALID_ARG);
    EXPECT_EQ(m_log.CodeOf("Failed to get file parameter value to load data;conn-str " + m_connStr),
              RC_INVALID_ARG)
        << m_log;
    ExpectClosedAndEmpty();
}

TEST_F(NoFlushLoad, OfAFileLoadsItAndLeavesItUntouched) {
    FileBuilder file;
    file.NewFile().Record(1, "one", 9).Record(2, OneBlock("two")).Commit(0, 2).Record(3, "lost");
    file.Zeros(50).Save(Path());
    Open(FileItem());
    ASSERT_EQ(Load(), RC_OK) << m_log;
    EXPECT_EQ(Records(), SeenRecords({{1, 9, "one"}, {2, 0, OneBlock("two")}}));
    EXPECT_EQ(NextRev(), 3);
    for (u32 n = 0; n < 20; ++n) {
        ASSERT_EQ(Insert("more"), RC_OK);
    }
    EXPECT_EQ(RevsOf(Records()), RevRange(1, 22));
    EXPECT_EQ(K9eReplStorageClose(m_handle), RC_OK);
    m_handle = nullptr;
    EXPECT_EQ(ReadBytes(Path()), file.Bytes());
    EXPECT_FALSE(Exists(Path() + "-idx"));
    EXPECT_EQ(CallCount(SystemCall::kWrite), 0U);
}

TEST_F(NoFlushLoad, OfAFileThatEndsWithItsFirstCommitBlockIsEmpty) {
    for (const i64 size : {1055, 1056, 1059, 1063}) {
        FileBuilder().NewFile().Zeros(8).CutTo(size).Save(Path());
        Open(FileItem());
        EXPECT_EQ(Load(), size < 1056 ? RC_FILE_CORRUPT : RC_OK) << size;
        EXPECT_EQ(K9eReplStorageClose(m_handle), RC_OK);
        m_handle = nullptr;
    }
}

TEST_F(NoFlushLoad, OfAFileClosesItAgain) {
    FileBuilder().NewFile().Record(1, "one").Commit(0, 1).Save(Path());
    Open(FileItem());
    ASSERT_EQ(Load(), RC_OK);
    void* file = nullptr;
    EXPECT_EQ(K9eReplStorageGetLLStorage(m_handle, &file), RC_FILE_NOT_OPEN);
    EXPECT_EQ(Load(), RC_ALREADY);
}

TEST_F(NoFlushLoad, OfAFileAppliesItsClearRevision) {
    FileBuilder file;
    file.NewFile().Record(1, "one").Record(2, "two").Record(3, "three").Commit(0, 3);
    file.Commit(2, 3).Save(Path());
    Open(FileItem());
    ASSERT_EQ(Load(), RC_OK);
    EXPECT_EQ(Records(), SeenRecords({{2, 0, "two"}, {3, 0, "three"}}));
    EXPECT_EQ(ReadBytes(Path()), file.Bytes());
}

TEST_F(NoFlushLoad, OfAFileUsesItsIndexAndDropsAWrongOne) {
    FileBuilder().NewFile().Record(1, "one").Commit(0, 1).Save(Path());
    WriteBytes(Path() + "-idx", IndexBytes({{1, 1056}}));
    const std::vector<u8> lie = IndexBytes({{5, 1056}});
    Open(FileItem());
    ASSERT_EQ(Load(), RC_OK);
    EXPECT_TRUE(m_log.Has("Index test passed; start loading from offset 1056")) << m_log;
    EXPECT_EQ(RevsOf(Records()), Revs({1}));
    EXPECT_EQ(K9eReplStorageClose(m_handle), RC_OK);
    WriteBytes(Path() + "-idx", lie);
    Open(FileItem());
    ASSERT_EQ(Load(), RC_OK);
    EXPECT_TRUE(m_log.Has("Index test failed at offset 1056")) << m_log;
    EXPECT_EQ(RevsOf(Records()), Revs({1}));
    EXPECT_EQ(ReadBytes(Path() + "-idx"), lie);
}

TEST_F(NoFlushLoad, OfAMissingFileFailsAndMayBeTriedAgain) {
    Open(FileItem());
    EXPECT_EQ(Load(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf("Failed to init temporary solid storage;conn-str " + m_connStr),
              RC_SYSTEM_ERROR)
        << m_log;
    ExpectClosedAndEmpty();
    FileBuilder().NewFile().Record(1, "one").Commit(0, 1).Save(Path());
    ASSERT_EQ(Load(), RC_OK);
    EXPECT_EQ(RevsOf(Records()), Revs({1}));
}

TEST_F(NoFlushLoad, OfAFileThatIsNoStorageFails) {
    WriteBytes(Path(), std::vector<u8>(2000, 7));
    Open(FileItem());
    EXPECT_EQ(Load(), RC_INVALID_ARG);
    EXPECT_EQ(m_log.CodeOf("Failed to init temporary solid storage;conn-str " + m_connStr),
              RC_INVALID_ARG)
        << m_log;
    ExpectClosedAndEmpty();
}

TEST_F(NoFlushLoad, OfAFileThatCannotBeScannedFails) {
    FileBuilder().Header().Record(1, "no commit block first").Commit(0, 1).Save(Path());
    Open(FileItem());
    EXPECT_EQ(Load(), RC_FILE_CORRUPT);
    EXPECT_EQ(
        m_log.CodeOf("Failed to enum temporary solid storage rec to load;conn-str " + m_connStr),
        RC_FILE_CORRUPT)
        << m_log;
    ExpectClosedAndEmpty();
}

TEST_F(NoFlushLoad, OfAFileThatCannotBeReadFailsAndMayBeTriedAgain) {
    FileBuilder().NewFile().Record(1, "one").Record(2, "two").Commit(0, 2).Save(Path());
    Open(FileItem());
    FailRead(2);  // the header's read succeeds
    EXPECT_EQ(Load(), RC_SYSTEM_ERROR);
    EXPECT_TRUE(
        m_log.Has("Failed to enum temporary solid storage rec to load;conn-str " + m_connStr))
        << m_log;
    ExpectClosedAndEmpty();
    ASSERT_EQ(Load(), RC_OK);
    EXPECT_EQ(RevsOf(Records()), Revs({1, 2}));
}

TEST_F(NoFlushLoad, WithBlocksTooSmallForAStoredRecordFails) {
    FileBuilder().NewFile().Record(1, std::string(115, 'x')).Commit(0, 1).Save(Path());
    Open(FileItem());
    EXPECT_EQ(Load(), RC_INVALID_ARG);
    EXPECT_TRUE(m_log.Has("Failed to insert rec while load;rev 1")) << m_log;
    ExpectClosedAndEmpty();
}

}  // namespace
}  // namespace k9erepl::test
