// Items one behind the other; see the header.
#include "reliability/large_image.h"

#include <cassert>
#include <cstring>

#include "format/index_file_format.h"
#include "format/storage_file_format.h"

namespace k9erepl::reliability {

namespace {

constexpr u32 kMarkSize = sizeof(i64);
constexpr u32 kItemOverhead = kRecordHeadSize + kCommitBlockSize;
// What is taken from the last item but one, so that the last one can be made.
constexpr u32 kPieceSize = 4096;

u32 SequenceOf(i64 rev) {
    return static_cast<u32>(1000 + rev);
}

}  // namespace

LargeImage::LargeImage(const std::string& path, i64 end) : m_path(path) {
    const i64 room = end - kFirstItemOffset;
    assert(room > 2 * i64{kFillItemSize});
    m_lastRev = room / kFillItemSize + 1;
    m_lastButOneSize = kFillItemSize - kPieceSize;
    m_lastSize = static_cast<u32>(room % kFillItemSize) + kPieceSize;
    if (m_lastSize > kFillItemSize) {
        m_lastButOneSize = kFillItemSize;
        m_lastSize -= kPieceSize;
    }
    FileBytes file;
    const TFileHeader header = NewFileHeader();
    file.Write(0, &header, sizeof header);
    const TCommitBlock first = NewCommitBlock(SequenceOf(0), 0);
    file.Write(kFirstCommitOffset, &first, sizeof first);
    i64 offset = kFirstItemOffset;
    for (i64 rev = 1; rev <= m_lastRev; ++rev) {
        WriteItem(file, rev, offset);
        offset += ItemSizeOf(rev);
    }
    assert(offset == end && file.Size() == end);
    m_image.Put(m_path, std::move(file));
}

void LargeImage::AddIndex() {
    TIndexHeader header{};
    std::memcpy(header.magic, kIndexMagic, kIndexMagicSize);
    header.version = kIndexVersion;
    header.count = static_cast<u32>(m_lastRev);
    header.blockSize = kFillItemSize;
    FileBytes file;
    i64 offset = kFirstItemOffset;
    for (i64 rev = 1; rev <= m_lastRev; ++rev) {
        const TIndexEntry entry{.rev = rev, .offset = offset};
        header.checksum ^= IndexEntryChecksum(entry.rev, entry.offset);
        file.Write(file.Size() + (rev == 1 ? i64{sizeof header} : 0), &entry, sizeof entry);
        offset += ItemSizeOf(rev);
    }
    file.Write(0, &header, sizeof header);
    m_image.Put(m_path + "-idx", std::move(file));
}

u32 LargeImage::ItemSizeOf(i64 rev) const {
    return rev == m_lastRev ? m_lastSize : rev == m_lastRev - 1 ? m_lastButOneSize : kFillItemSize;
}

model::Record LargeImage::RecordOf(i64 rev) const {
    std::string data(ItemSizeOf(rev) - kItemOverhead, '\0');
    std::memcpy(data.data(), &rev, kMarkSize);
    std::memcpy(data.data() + data.size() - kMarkSize, &rev, kMarkSize);
    return {static_cast<u32>(rev), std::move(data)};
}

void LargeImage::WriteItem(FileBytes& file, i64 rev, i64 offset) const {
    const u32 size = ItemSizeOf(rev);
    const TRecordHead head{.signature = kRecordSignature,
                           .size = size - kCommitBlockSize,
                           .rev = rev,
                           .userWord = static_cast<u32>(rev),
                           .dataSize = size - kItemOverhead};
    TCommitBlock block = NewCommitBlock(SequenceOf(rev), rev);
    block.prevSequence = SequenceOf(rev - 1);
    file.Write(offset, &head, sizeof head);
    file.Write(offset + kRecordHeadSize, &rev, kMarkSize);
    file.Write(offset + size - kCommitBlockSize - kMarkSize, &rev, kMarkSize);
    file.Write(offset + size - kCommitBlockSize, &block, sizeof block);
}

}  // namespace k9erepl::reliability
