// A logical clear whose first kept record is in memory: where it finds that record's place in the
// file, and when it reads for it.
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "engine/clear_fixture.h"
#include "support/fault_injection.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

// 1,000 records of 100 bytes in two blocks of 64 KiB.
class ClearFromMemory : public ::testing::TestWithParam<u32> {
  protected:
    // The parameter is the number of records in a flush.
    ClearFromMemory() {
        m_storage.emplace(
            "cache_type=AllInMem;block_size=65536;flush_timeout=3600000;"
            "flush_mode=PerTrans;"
            "flush_trans_num=" +
            std::to_string(GetParam()));
        for (int i = 0; i < 1000; ++i) {
            EXPECT_EQ(m_storage->Insert(std::string(76, static_cast<char>('a' + i % 26))), RC_OK);
        }
        EXPECT_EQ(StorageAccess::Flush(m_storage->Object()), RC_OK);
        EXPECT_EQ(m_storage->WaitForWriter(), RC_OK);
    }

    // What a clear that reads the whole block finds: the record at the entry's offset.
    void ExpectFirstAt(i64 rev) {
        const BlockIndex& index = StorageAccess::Blocks(m_storage->Object()).Index();
        EXPECT_EQ(index.begin()->second.firstRev, rev);
        const i64 offset = index.begin()->second.fileOffset;
        EXPECT_EQ(m_storage->Object().SolidStorage().CheckRecordAt(rev, offset), RC_OK) << rev;
    }

    const ScopedSystemCalls m_systemCalls;
    std::optional<TestStorage> m_storage;
};

TEST_P(ClearFromMemory, FindsTheRecordsPlaceInTheFile) {
    for (const i64 rev : {2, 45, 46, 100, 333, 640, 777, 1000}) {
        ASSERT_EQ(m_storage->Clear(rev, kLogical), RC_OK);
        ExpectFirstAt(rev);
        EXPECT_EQ(RevsOf(m_storage->Records()), RevRange(rev, 1000));
    }
    m_storage->Reopen();
    EXPECT_EQ(RevsOf(m_storage->Records()), RevRange(1000, 1000));
}

TEST_P(ClearFromMemory, ReadsAtMostALittleBehindANote) {
    ASSERT_EQ(m_storage->Clear(40, kLogical), RC_OK);
    for (const i64 rev : {41, 250, 600, 900}) {
        const u32 reads = CallCount(SystemCall::kRead);
        ASSERT_EQ(m_storage->Clear(rev, kLogical), RC_OK);
        EXPECT_LE(CallCount(SystemCall::kRead) - reads, GetParam() < 1000 ? 1U : 0U);
    }
}

TEST_P(ClearFromMemory, FindsThePlaceAmongRecordsThatAreAppendedAfterALoad) {
    m_storage->Reopen();
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(m_storage->Insert(std::string(76, 'z')), RC_OK);
    }
    for (const i64 rev : {900, 1001, 1050, 1100}) {
        ASSERT_EQ(m_storage->Clear(rev, kLogical), RC_OK);
        const BlockIndex& index = StorageAccess::Blocks(m_storage->Object()).Index();
        EXPECT_EQ(
            m_storage->Object().SolidStorage().CheckRecordAt(rev, index.begin()->second.fileOffset),
            RC_OK)
            << rev;
    }
}

TEST_P(ClearFromMemory, ReadsTheFileWhenTheNotesAreForgotten) {
    BlockStore& blocks = StorageAccess::Blocks(m_storage->Object());
    blocks.NotesOf(*blocks.Blocks().begin()->second).Forget();
    ASSERT_EQ(m_storage->Clear(333, kLogical), RC_OK);
    ExpectFirstAt(333);
}

INSTANTIATE_TEST_SUITE_P(RecordsAFlush, ClearFromMemory, ::testing::Values(1, 10, 50, 5000));

TEST(ClearFromTheFile, ThatCannotReadBreaksTheStorage) {
    const ScopedSystemCalls systemCalls;
    TestStorage storage(
        "block_size=138;cache_type=Last1;flush_mode=PerTrans;flush_trans_num=1;"
        "flush_timeout=3600000");
    storage.InsertMany(9);
    storage.Settle();
    Fail(SystemCall::kRead, 1, SystemErrorKind::kInputOutput, Repeat::kFromThenOn);
    const LogCapture log;
    EXPECT_EQ(storage.Clear(3, kLogical), RC_SYSTEM_ERROR);
    EXPECT_EQ(storage.State(), StorageState::kBroken);
    EXPECT_EQ(log.CodeOf("Enum from disk failed"), RC_SYSTEM_ERROR) << log;
}

}  // namespace
}  // namespace k9erepl::test
