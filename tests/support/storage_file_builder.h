// Storage files made item by item, valid or damaged on purpose. Used by the tests of the storage
// file and of everything that loads one.
//
//     FileBuilder file;                                    // an empty vector of bytes
//     file.NewFile().Record(1, "one").Record(2, "two").Commit(0, 2).Zeros(8).Save(path);
#ifndef K9EREPL_TESTS_SUPPORT_STORAGE_FILE_BUILDER_H
#define K9EREPL_TESTS_SUPPORT_STORAGE_FILE_BUILDER_H

#include <cassert>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "format/storage_file_format.h"
#include "platform/int_types.h"
#include "support/file_bytes.h"

namespace k9erepl::test {

class FileBuilder {
  public:
    // Sequences of the commit blocks: the first one's, and the step to each next one.
    static constexpr u32 kFirstSequence = 0x1001;

    FileBuilder& Header(u32 lifenum = 0, i64 clearOldRev = 0) {
        TFileHeader header = NewFileHeader();
        header.lifenum = lifenum;
        header.clearOldRev = clearOldRev;
        return Raw(&header, sizeof header);
    }
    // The header and the first commit block: a storage without records.
    FileBuilder& NewFile() { return Header().Commit(0, 0); }

    // A commit block that links to the one before it.
    FileBuilder& Commit(i64 clearRev, i64 commitRev) {
        TCommitBlock block = NewCommitBlock(m_nextSequence++, commitRev);
        block.prevSequence = m_lastSequence;
        block.clearRev = clearRev;
        m_lastSequence = block.sequence;
        return RawCommit(block);
    }
    FileBuilder& Record(i64 rev, std::string_view data = {}, u32 userWord = 0) {
        const auto dataSize = static_cast<u32>(data.size());
        RawHead({.signature = kRecordSignature,
                 .size = dataSize + kRecordHeadSize,
                 .rev = rev,
                 .userWord = userWord,
                 .dataSize = dataSize});
        return Raw(data.data(), data.size());
    }
    // A record with `dataSize` bytes of a pattern that PatternByte gives.
    FileBuilder& LargeRecord(i64 rev, u32 dataSize) {
        HeadClaiming(rev, dataSize + kRecordHeadSize, dataSize);
        for (u32 i = 0; i < dataSize; ++i) {
            m_bytes.push_back(PatternByte(rev, i));
        }
        return *this;
    }
    static u8 PatternByte(i64 rev, u32 index) {
        return static_cast<u8>(static_cast<u32>(rev) * 31 + index * 7 + (index >> 8));
    }

    // Bytes as they stand: a commit block with its own links, a record head without data, ...
    FileBuilder& RawCommit(const TCommitBlock& block) { return Raw(&block, sizeof block); }
    FileBuilder& RawHead(const TRecordHead& head) { return Raw(&head, sizeof head); }
    // A record head that claims these sizes; no data.
    FileBuilder& HeadClaiming(i64 rev, u32 size, u32 dataSize) {
        return RawHead({.signature = kRecordSignature,
                        .size = size,
                        .rev = rev,
                        .userWord = 0,
                        .dataSize = dataSize});
    }
    FileBuilder& RawWord(u32 word) { return Raw(&word, sizeof word); }
    FileBuilder& Zeros(std::size_t count) { return Fill(count, 0); }
    FileBuilder& Fill(std::size_t count, u8 byte) {
        m_bytes.insert(m_bytes.end(), count, byte);
        return *this;
    }
    FileBuilder& Raw(const void* bytes, std::size_t size) {
        const auto* first = static_cast<const u8*>(bytes);
        m_bytes.insert(m_bytes.end(), first, first + size);
        return *this;
    }

    // Leaves the first `size` bytes.
    FileBuilder& CutTo(i64 size) {
        assert(size >= 0 && size <= Size());
        m_bytes.resize(static_cast<std::size_t>(size));
        return *this;
    }

    // The offset at which the next item will begin.
    i64 Size() const { return static_cast<i64>(m_bytes.size()); }
    u32 LastSequence() const { return m_lastSequence; }
    const std::vector<u8>& Bytes() const { return m_bytes; }
    // Creates or replaces the file; the builder may go on.
    FileBuilder& Save(const std::string& path) {
        WriteBytes(path, m_bytes);
        return *this;
    }

  private:
    std::vector<u8> m_bytes;
    u32 m_lastSequence = 0;
    u32 m_nextSequence = kFirstSequence;
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_SUPPORT_STORAGE_FILE_BUILDER_H
