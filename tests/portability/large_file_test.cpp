// Storage files beyond 2 and 4 GiB, with holes for the data of their records: on a 32-bit build
// every offset that is cut to 32 bits shows here.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "format/index_file_format.h"
#include "format/storage_file_format.h"
#include "platform/file.h"
#include "portability/portable.h"
#include "portability/sparse_file.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"

namespace k9erepl::test {
namespace {

using portable::Client;
using Revs = std::vector<i64>;

constexpr i64 kTwoGiB = i64{1} << 31;
constexpr i64 kFourGiB = i64{1} << 32;
// Of the largest record that a storage file takes.
constexpr u32 kLargeDataSize = 10 * 1024 * 1024 - kRecordHeadSize;
// A record and the commit block behind it.
constexpr i64 kLargeItemSize = i64{kRecordHeadSize} + kLargeDataSize + kCommitBlockSize;
constexpr i64 kLastLargeRev = 420;

constexpr i64 OffsetOfLarge(i64 rev) {
    return kFirstItemOffset + (rev - 1) * kLargeItemSize;
}
// The record of which a byte lies at `offset`.
constexpr i64 LargeRevAt(i64 offset) {
    return (offset - kFirstItemOffset) / kLargeItemSize + 1;
}
constexpr i64 kRevAtTwoGiB = LargeRevAt(kTwoGiB);
constexpr i64 kRevAtFourGiB = LargeRevAt(kFourGiB);
static_assert(OffsetOfLarge(kLastLargeRev) > kFourGiB + 5 * kLargeItemSize);

// For what the file has besides holes, for an index and for what tests append.
constexpr std::uintmax_t kNeededRoom = 200 * 1024 * 1024;

constexpr u32 kMarkSize = sizeof(i64);

u32 SequenceOf(i64 rev) {
    return static_cast<u32>(1000 + rev);
}

// Small records are those that a test has appended.
bool IsAsWritten(const K9eReplRec& rec) {
    return rec.dataSize != kLargeDataSize ||
           (LoadUnaligned<i64>(rec.data) == rec.rev &&
            LoadUnaligned<i64>(rec.data + kLargeDataSize - kMarkSize) == rec.rev &&
            rec.userWord == static_cast<u32>(rec.rev));
}

u32 K9EREPL_CALL TakeRev(const K9eReplRec* rec, void* revs) {
    EXPECT_TRUE(IsAsWritten(*rec)) << rec->rev;
    static_cast<Revs*>(revs)->push_back(i64{rec->rev});
    return RC_OK;
}

// Records 1 to kLastLargeRev, one a transaction. Data is zeros but for the first and the last eight
// bytes, which are the record's revision.
class LargeStorage : public testing::Test {
  protected:
    // Skips the test where such a file cannot be made.
    void SetUp() override {
        if (std::filesystem::space(m_folder.Path()).available < kNeededRoom) {
            GTEST_SKIP() << "no room in " << m_folder.Path();
        }
        WriteText(Path(), "");
        if (!LetHaveHoles(Path())) {
            GTEST_SKIP() << "no holes in files of " << m_folder.Path();
        }
        WriteStorage();
    }

    // Puts an index file that names every record beside the storage file.
    void WriteIndex() {
        TIndexHeader header{};
        std::memcpy(header.magic, kIndexMagic, kIndexMagicSize);
        header.version = kIndexVersion;
        header.count = static_cast<u32>(kLastLargeRev);
        header.blockSize = kRecordHeadSize + kLargeDataSize;
        std::vector<u8> bytes(sizeof header);
        for (i64 rev = 1; rev <= kLastLargeRev; ++rev) {
            const TIndexEntry entry{.rev = rev, .offset = OffsetOfLarge(rev)};
            header.checksum ^= IndexEntryChecksum(entry.rev, entry.offset);
            const auto* first = reinterpret_cast<const u8*>(&entry);
            bytes.insert(bytes.end(), first, first + sizeof entry);
        }
        std::memcpy(bytes.data(), &header, sizeof header);
        WriteBytes(Path() + "-idx", bytes);
    }
    // "file=...;" and settings under which one block, of one record, stays in memory; `more` wins.
    std::string ConnString(const std::string& more = "") const {
        return "file=" + Path() + ";" + more +
               "block_size=10485760;cache_type=Last1;memory_reserve=1;read_buffers_count=1;"
               "flush_mode=PerTrans;flush_trans_num=1;flush_timeout=3600000;";
    }
    std::string Path() const { return m_folder.File("large.edb"); }
    i64 FileSize() const {
        platform::File file;
        i64 size = -1;
        EXPECT_TRUE(file.Open(Path().c_str(), {}) && file.GetSize(&size));
        return size;
    }

    // Revisions of the records in the range. Adds a failure where a record has other bytes than it
    // should.
    static Revs ReadRevs(const Client& client, i64 fromRev, i64 toRev) {
        Revs revs;
        EXPECT_EQ(K9eReplStorageEnumRecords(client.Handle(), fromRev, toRev, &TakeRev, &revs),
                  u32{RC_OK});
        return revs;
    }

  private:
    void WriteStorage() {
        ASSERT_TRUE(m_file.Open(Path().c_str(), {}));
        const TFileHeader header = NewFileHeader();
        WriteAt(0, &header, sizeof header);
        const TCommitBlock first = NewCommitBlock(SequenceOf(0), 0);
        WriteAt(kFirstCommitOffset, &first, sizeof first);
        for (i64 rev = 1; rev <= kLastLargeRev; ++rev) {
            WriteItem(rev);
        }
        m_file.Close();
        ASSERT_EQ(FileSize(), OffsetOfLarge(kLastLargeRev + 1));
    }
    void WriteItem(i64 rev) {
        const i64 offset = OffsetOfLarge(rev);
        const TRecordHead head{.signature = kRecordSignature,
                               .size = kRecordHeadSize + kLargeDataSize,
                               .rev = rev,
                               .userWord = static_cast<u32>(rev),
                               .dataSize = kLargeDataSize};
        TCommitBlock block = NewCommitBlock(SequenceOf(rev), rev);
        block.prevSequence = SequenceOf(rev - 1);
        u8 begin[kRecordHeadSize + kMarkSize];
        std::memcpy(begin, &head, sizeof head);
        std::memcpy(begin + sizeof head, &rev, kMarkSize);
        u8 end[kMarkSize + kCommitBlockSize];
        std::memcpy(end, &rev, kMarkSize);
        std::memcpy(end + kMarkSize, &block, sizeof block);
        WriteAt(offset, begin, sizeof begin);
        WriteAt(offset + kLargeItemSize - i64{sizeof end}, end, sizeof end);
    }
    // Through the library's own files, whose offsets have 64 bits on every target.
    void WriteAt(i64 offset, const void* data, u32 size) {
        u32 put = 0;
        ASSERT_TRUE(m_file.Seek(offset) && m_file.Write(data, size, &put)) << offset;
    }

    const TempFolder m_folder;
    platform::File m_file;
};

constexpr i64 kClearRev = kRevAtFourGiB + 5;
constexpr i64 kDataEnd = OffsetOfLarge(kLastLargeRev + 1);

TEST_F(LargeStorage, IsLoadedFromBeyondFourGiBWithTheIndexThatALoadHasMade) {
    { const Client client(ConnString()); }
    for (const bool byHand : {false, true}) {
        if (byHand) {
            WriteIndex();
        }
        const LogCapture log;
        const Client client(ConnString());
        EXPECT_EQ(client.NextRev(), kLastLargeRev + 1);
        EXPECT_TRUE(log.Has("Index file seems to be valid (420 idx, sz 10485760)")) << log;
        EXPECT_TRUE(log.Has("Index test passed; start loading from offset " +
                            std::to_string(OffsetOfLarge(kLastLargeRev - 1))))
            << log;
    }
}

TEST_F(LargeStorage, DeliversTheRecordsAcrossBothBorders) {
    WriteIndex();
    const Client client(ConnString());
    for (const i64 rev : {kRevAtTwoGiB, kRevAtFourGiB}) {
        EXPECT_EQ(ReadRevs(client, rev - 1, rev + 1), Revs({rev - 1, rev, rev + 1}));
        EXPECT_EQ(ReadRevs(client, rev, rev), Revs({rev}));
    }
}

TEST_F(LargeStorage, RaisesItsClearRevisionBeyondFourGiB) {
    WriteIndex();
    Client(ConnString()).Clear(kClearRev, K9EREPL_CLEAR_LOGICAL);
    EXPECT_EQ(FileSize(), kDataEnd + kCommitBlockSize);
    const Client client(ConnString());
    EXPECT_EQ(client.NextRev(), kLastLargeRev + 1);
    EXPECT_EQ(ReadRevs(client, 0, kClearRev + 1), Revs({kClearRev, kClearRev + 1}));
}

TEST_F(LargeStorage, IsSqueezedToWhatLiesBeyondFourGiB) {
    constexpr i64 kKept = 2;
    WriteIndex();
    Client(ConnString()).Clear(kLastLargeRev - kKept + 1, K9EREPL_CLEAR_SQUEEZE);
    EXPECT_EQ(FileSize(), kFirstItemOffset + kKept * kLargeItemSize + kCommitBlockSize);
    const Client client(ConnString());
    EXPECT_EQ(ReadRevs(client, 0, INT64_MAX), Revs({kLastLargeRev - 1, kLastLargeRev}));
}

// With each of the writers: the parameter says whether it is the asynchronous one.
class LargeStorageWriter : public LargeStorage, public testing::WithParamInterface<bool> {
  protected:
    std::string WithWriter(const std::string& more = "") const {
        return ConnString((GetParam() ? "async_mode=yes;" : "") + more);
    }
};

TEST_P(LargeStorageWriter, AppendsBeyondFourGiB) {
    WriteIndex();
    {
        Client client(WithWriter());
        client.Insert(1000);
        client.Insert(0);
    }
    EXPECT_EQ(FileSize(), kDataEnd + 2 * (kRecordHeadSize + kCommitBlockSize) + 1000);
    const Client client(WithWriter());
    const portable::PlannedRecords appended{{kLastLargeRev + 1, 1000}, {kLastLargeRev + 2, 0}};
    EXPECT_EQ(client.Records(kLastLargeRev + 1, INT64_MAX), appended);
    EXPECT_EQ(ReadRevs(client, kLastLargeRev, kLastLargeRev), Revs({kLastLargeRev}));
}

TEST_P(LargeStorageWriter, GrowsByStepsBeyondFourGiB) {
    WriteIndex();
    Client(WithWriter("file_size_delta=1;")).Insert(1000);
    EXPECT_EQ(FileSize(), kDataEnd + 1024 * 1024);
    const Client client(WithWriter());
    EXPECT_EQ(client.NextRev(), kLastLargeRev + 2);
}

INSTANTIATE_TEST_SUITE_P(Both, LargeStorageWriter, testing::Bool(), [](const auto& tested) {
    return tested.param ? "Asynchronous" : "Synchronous";
});

}  // namespace
}  // namespace k9erepl::test
