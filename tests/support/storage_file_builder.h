// Storage files made item by item, valid or damaged on purpose. Used by the tests of the storage
// file and of everything that loads one.
//
//     FileBuilder file;                                    // an empty vector of bytes
//     file.NewFile().Record(1, "one").Record(2, "two").Commit(0, 2).Zeros(8).Save(path);
#ifndef K9EREPL_TESTS_SUPPORT_STORAGE_FILE_BUILDER_H
#define K9EREPL_TESTS_SUPPORT_STORAGE_FILE_BUILDER_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "format/storage_file_format.h"
#include "platform/int_types.h"

namespace k9erepl::test {

class FileBuilder {
  public:
    // Sequences of the commit blocks: the first one's, and the step to each next one.
    static constexpr u32 kFirstSequence = 0x1001;

    FileBuilder& Header(u32 lifenum = 0, i64 clearOldRev = 0);
    // The header and the first commit block: a storage without records.
    FileBuilder& NewFile() { return Header().Commit(0, 0); }

    // A commit block that links to the one before it.
    FileBuilder& Commit(i64 clearRev, i64 commitRev);
    FileBuilder& Record(i64 rev, std::string_view data = {}, u32 userWord = 0);
    // A record with `dataSize` bytes of a pattern that PatternByte gives.
    FileBuilder& LargeRecord(i64 rev, u32 dataSize);
    static u8 PatternByte(i64 rev, u32 index) {
        return static_cast<u8>(static_cast<u32>(rev) * 31 + index * 7 + (index >> 8));
    }

    // Bytes as they stand: a commit block with its own links, a record head without data, ...
    FileBuilder& RawCommit(const TCommitBlock& block) { return Raw(&block, sizeof block); }
    FileBuilder& RawHead(const TRecordHead& head) { return Raw(&head, sizeof head); }
    // A record head that claims these sizes; no data.
    FileBuilder& HeadClaiming(i64 rev, u32 size, u32 dataSize);
    FileBuilder& RawWord(u32 word) { return Raw(&word, sizeof word); }
    FileBuilder& Zeros(std::size_t count);
    FileBuilder& Fill(std::size_t count, u8 byte);
    FileBuilder& Raw(const void* bytes, std::size_t size);

    // Leaves the first `size` bytes.
    FileBuilder& CutTo(i64 size);

    // The offset at which the next item will begin.
    i64 Size() const { return static_cast<i64>(m_bytes.size()); }
    u32 LastSequence() const { return m_lastSequence; }
    const std::vector<u8>& Bytes() const { return m_bytes; }
    // Creates or replaces the file; the builder may go on.
    FileBuilder& Save(const std::string& path);

  private:
    std::vector<u8> m_bytes;
    u32 m_lastSequence = 0;
    u32 m_nextSequence = kFirstSequence;
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_SUPPORT_STORAGE_FILE_BUILDER_H
