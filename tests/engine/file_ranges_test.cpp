// Ranges from blocks that are only in the file: they begin at notes that memory blocks left behind
// or that an earlier walk made, and fall back to the block's start when a note does not hold.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "engine/clear_fixture.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

// 3,000 records of 100 bytes in five blocks of 64 KiB, of which memory keeps the last. The
// parameter is the number of records in a flush.
class FileRanges : public ::testing::TestWithParam<u32> {
  protected:
    static constexpr i64 kRecords = 3000;

    FileRanges() : m_storage(Settings()) {
        for (i64 rev = 1; rev <= kRecords; ++rev) {
            EXPECT_EQ(m_storage.Insert(FillOf(rev)), RC_OK);
        }
        m_storage.Settle();
    }

    static std::string Settings() {
        return "cache_type=Last1;block_size=65536;index_hint=1;flush_mode=PerTrans;"
               "flush_timeout=3600000;read_buffers_count=1;flush_trans_num=" +
               std::to_string(GetParam());
    }
    static std::string FillOf(i64 rev) {
        return std::string(76, static_cast<char>('a' + rev % 26));
    }
    BlockStore& Blocks() { return StorageAccess::Blocks(m_storage.Object()); }
    FileNotes& Notes() { return Blocks().NotesInFile(); }
    i64 FirstKey() { return Blocks().Index().begin()->first; }
    // Breaks the first record of the file's first block.
    void DamageFirstRecord() {
        std::fstream file(m_storage.Path(), std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(Blocks().Index().begin()->second.fileOffset.load());
        file.put('x');
        EXPECT_TRUE(file.good());
    }
    void ExpectRange(i64 from, i64 to) {
        const SeenRecords seen = m_storage.Records(from, to);
        ASSERT_EQ(RevsOf(seen), RevRange(from, to));
        ASSERT_EQ(seen.front().data, FillOf(from));
    }
    void ExpectRanges(i64 oldest = 1) {
        for (i64 from = oldest; from < kRecords; from += 97) {
            ExpectRange(from, std::min(from + from % 50, kRecords));
        }
    }

    TestStorage m_storage;
};

TEST_P(FileRanges, DeliverWhatTheStorageHolds) {
    EXPECT_GT(Notes().Memory(), 0U);
    ExpectRanges();
    m_storage.Reopen();
    ExpectRanges();
    ExpectRanges();
}

TEST_P(FileRanges, BeginAtNotesThatTheirBlockLeftWhenItWasWritten) {
    ExpectRange(2000, 2001);
    DamageFirstRecord();
    ExpectRange(300, 310);
    SeenRecords seen;
    EXPECT_EQ(m_storage.Enumerate(&seen, 1, 1), RC_BAD_DATA);
}

TEST_P(FileRanges, BeginAtNotesThatAnEarlierWalkMade) {
    m_storage.Reopen();
    Notes().Clear();
    ExpectRange(600, 601);
    ExpectRange(2000, 2001);
    DamageFirstRecord();
    ExpectRange(300, 310);
}

TEST_P(FileRanges, ForgetANoteThatDoesNotHoldAndWalkTheBlock) {
    for (const FileNote note : {FileNote{300, 4096 + 7}, FileNote{250, 4500}, FileNote{9, 70'000},
                                FileNote{0, 5000}, FileNote{300, 4'000'000'000}}) {
        Notes().Put(FirstKey(), {note});
        ExpectRange(310, 330);
    }
}

TEST_P(FileRanges, ReadTheBlockFromItsStartWithoutNotes) {
    m_storage.Reopen(Settings() + ";range_index_memory=0");
    ExpectRange(300, 310);
    ExpectRange(2000, 2001);
    EXPECT_EQ(Notes().Memory(), 0U);
    DamageFirstRecord();
    SeenRecords seen;
    EXPECT_EQ(m_storage.Enumerate(&seen, 300, 310), RC_BAD_DATA);
}

TEST_P(FileRanges, KeepTheLimitOfTheirNotes) {
    m_storage.Reopen(Settings() + ";range_index_memory=1000");
    ExpectRanges();
    EXPECT_LE(Notes().Memory(), 1000U);
    ExpectRanges();
}

TEST_P(FileRanges, AreRightAfterClearsOfEveryKind) {
    for (const i64 rev : {3, 300, 301, 700, 1500, 1900}) {
        m_storage.Clear(rev, rev % 2 == 0 ? kLogical : kSqueeze);
        ExpectRanges(rev);
    }
    m_storage.Clear(2000, kSqueeze);
    EXPECT_EQ(Notes().Memory(), 0U) << "offsets have moved";
    ExpectRanges(2000);
    EXPECT_GT(Notes().Memory(), 0U);
    EXPECT_EQ(m_storage.Truncate(), RC_OK);
    EXPECT_EQ(Notes().Memory(), 0U);
}

TEST_P(FileRanges, AreRightInCallbacksOfOneAnother) {
    m_storage.Reopen(Settings() + ";range_index_memory=900");
    i64 expected = 0;
    EXPECT_EQ(EnumerateWith(m_storage, 1, 2400,
                            [&](const K9eReplRec& rec) -> u32 {
                                EXPECT_EQ(i64{rec.rev}, ++expected);
                                if (rec.rev % 300 == 7) {
                                    ExpectRange(2400 - rec.rev, 2420 - rec.rev);
                                }
                                return RC_OK;
                            }),
              RC_OK);
    EXPECT_EQ(expected, 2400);
}

INSTANTIATE_TEST_SUITE_P(RecordsAFlush, FileRanges, ::testing::Values(1, 10, 400));

TEST(RangeIndexMemorySetting, IsLoggedWhenItIsGivenAndReadOnlyWhereBlocksLeaveMemory) {
    LogCapture log;
    {
        const TestStorage storage("range_index_memory=70000");
        EXPECT_TRUE(log.Has(K9SYS_LOG_INFO, "Use range_index_memory 70000")) << log;
    }
    log.Clear();
    const TestStorage silent("");
    const TestStorage inMemory("cache_type=AllInMem;range_index_memory=70000");
    EXPECT_EQ(log.CountContaining("range_index_memory 7"), 0U) << log;
    EXPECT_EQ(StorageAccess::Settings(silent.Object()).rangeIndexMemory, 8U * 1024 * 1024);
}

}  // namespace
}  // namespace k9erepl::test
