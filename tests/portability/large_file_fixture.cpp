// Makes the large storage file, item by item; see the header.
#include "portability/large_file_fixture.h"

#include <cstring>
#include <filesystem>

#include "index/index_format.h"
#include "portability/sparse_file.h"
#include "support/file_bytes.h"

namespace k9erepl::test {
namespace {

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
    static_cast<std::vector<i64>*>(revs)->push_back(rec->rev);
    return RC_OK;
}

}  // namespace

void LargeStorage::SetUp() {
    if (std::filesystem::space(m_folder.Path()).available < kNeededRoom) {
        GTEST_SKIP() << "no room in " << m_folder.Path();
    }
    WriteText(Path(), "");
    if (!LetHaveHoles(Path())) {
        GTEST_SKIP() << "no holes in files of " << m_folder.Path();
    }
    WriteStorage();
}

void LargeStorage::WriteStorage() {
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

void LargeStorage::WriteItem(i64 rev) {
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
void LargeStorage::WriteAt(i64 offset, const void* data, u32 size) {
    u32 put = 0;
    ASSERT_TRUE(m_file.Seek(offset) && m_file.Write(data, size, &put)) << offset;
}

void LargeStorage::WriteIndex() {
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

std::string LargeStorage::ConnString(const std::string& more) const {
    return "file=" + Path() + ";" + more +
           "block_size=10485760;cache_type=Last1;memory_reserve=1;read_buffers_count=1;"
           "flush_mode=PerTrans;flush_trans_num=1;flush_timeout=3600000;";
}

i64 LargeStorage::FileSize() const {
    platform::File file;
    i64 size = -1;
    EXPECT_TRUE(file.Open(Path().c_str(), {}) && file.GetSize(&size));
    return size;
}

std::vector<i64> LargeStorage::ReadRevs(const portable::Client& client, i64 fromRev, i64 toRev) {
    std::vector<i64> revs;
    EXPECT_EQ(K9eReplStorageEnumRecords(client.Handle(), fromRev, toRev, &TakeRev, &revs),
              u32{RC_OK});
    return revs;
}

}  // namespace k9erepl::test
