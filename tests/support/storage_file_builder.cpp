// Storage files made item by item; see the header. Called by tests.
#include "support/storage_file_builder.h"

#include <cassert>

#include "support/file_bytes.h"

namespace k9erepl::test {

FileBuilder& FileBuilder::Header(u32 lifenum, i64 clearOldRev) {
    TFileHeader header = NewFileHeader();
    header.lifenum = lifenum;
    header.clearOldRev = clearOldRev;
    return Raw(&header, sizeof header);
}

FileBuilder& FileBuilder::Commit(i64 clearRev, i64 commitRev) {
    TCommitBlock block = NewCommitBlock(m_nextSequence++, commitRev);
    block.prevSequence = m_lastSequence;
    block.clearRev = clearRev;
    m_lastSequence = block.sequence;
    return RawCommit(block);
}

FileBuilder& FileBuilder::Record(i64 rev, std::string_view data, u32 userWord) {
    const auto dataSize = static_cast<u32>(data.size());
    RawHead({.signature = kRecordSignature,
             .size = dataSize + kRecordHeadSize,
             .rev = rev,
             .userWord = userWord,
             .dataSize = dataSize});
    return Raw(data.data(), data.size());
}

FileBuilder& FileBuilder::LargeRecord(i64 rev, u32 dataSize) {
    HeadClaiming(rev, dataSize + kRecordHeadSize, dataSize);
    const std::size_t begin = m_bytes.size();
    m_bytes.resize(begin + dataSize);
    u8* const data = m_bytes.data() + begin;
    for (u32 i = 0; i < dataSize; ++i) {
        data[i] = PatternByte(rev, i);
    }
    return *this;
}

FileBuilder& FileBuilder::HeadClaiming(i64 rev, u32 size, u32 dataSize) {
    return RawHead({.signature = kRecordSignature,
                    .size = size,
                    .rev = rev,
                    .userWord = 0,
                    .dataSize = dataSize});
}

FileBuilder& FileBuilder::Zeros(std::size_t count) {
    return Fill(count, 0);
}

FileBuilder& FileBuilder::Fill(std::size_t count, u8 byte) {
    m_bytes.insert(m_bytes.end(), count, byte);
    return *this;
}

FileBuilder& FileBuilder::Raw(const void* bytes, std::size_t size) {
    const auto* first = static_cast<const u8*>(bytes);
    m_bytes.insert(m_bytes.end(), first, first + size);
    return *this;
}

FileBuilder& FileBuilder::CutTo(i64 size) {
    assert(size >= 0 && size <= Size());
    m_bytes.resize(static_cast<std::size_t>(size));
    return *this;
}

FileBuilder& FileBuilder::Save(const std::string& path) {
    WriteBytes(path, m_bytes);
    return *this;
}

}  // namespace k9erepl::test
