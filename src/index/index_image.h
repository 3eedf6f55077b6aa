// The bytes of the index file, and which of them the next save must write. This class knows no file
// and no thread: the index worker fills the image from the block index, the file writer writes it.
#ifndef K9EREPL_INDEX_INDEX_IMAGE_H
#define K9EREPL_INDEX_INDEX_IMAGE_H

#include "format/index_file_format.h"
#include "index/block_index.h"
#include "platform/int_types.h"
#include "platform/memory.h"

namespace k9erepl {

// A file with more entries would have 4 GiB or more and would not fit one write. The blocks beyond
// are left out of the file; a load finds them by reading.
inline constexpr u32 kMaxIndexEntries = (0xFFFFFFFF - sizeof(TIndexHeader)) / sizeof(TIndexEntry);

// What IndexImage::Update found out; its comment explains the values.
enum class IndexUpdate { kUnchanged, kChanged, kNoMemory };

// Holds the header and those entries that the next save writes. After a save the entries' memory
// is given back: an update costs as much as the blocks that are new, not as all that the storage
// holds.
//
// A save goes: Update; if that answers kChanged, the bytes are written; then MarkSaved, or
// StartOver when the writing failed. A new image stands for a file without entries. Used by one
// thread at a time, the one that has the turn (index_turn.h).
class IndexImage {
  public:
    // `blockSize` is the setting block_size, in bytes, for the header. `maxEntries` is at least 1;
    // only tests need fewer than kMaxIndexEntries. Throws K9eStorageException (RC_NO_MEMORY).
    explicit IndexImage(u32 blockSize, u32 maxEntries = kMaxIndexEntries);
    IndexImage(const IndexImage&) = delete;
    IndexImage& operator=(const IndexImage&) = delete;

    // Takes in the entries of `blockIndex` behind the last saved one, in order of revision, up to
    // the first block that is not in the storage file. It passes over blocks without records, and
    // over entries that would break the rising order of offsets; of two entries with the same
    // offset the later one stays. The last saved entry is taken out and in again. When `blockIndex`
    // does not hold that entry unchanged, everything is taken in anew. kChanged: the bytes below
    // must be written. kUnchanged: they would leave the file as it is. kNoMemory: nothing was taken
    // in; the image is as after StartOver.
    IndexUpdate Update(const BlockIndex& blockIndex);

    // The bytes of the save: the whole file when IsWhole(), otherwise the header and the last
    // entries, which belong at TailOffset() of the file. Sizes and offsets are bytes. The pointers
    // are valid until the next call that changes the image.
    bool IsWhole() const { return m_isWhole; }
    const u8* Whole() const { return m_bytes; }
    u32 WholeSize() const { return m_size; }
    const u8* Header() const { return m_bytes; }
    const u8* Tail() const { return m_bytes + sizeof(TIndexHeader); }
    u32 TailSize() const { return m_size - static_cast<u32>(sizeof(TIndexHeader)); }
    // REQUIRES: !IsWhole().
    u32 TailOffset() const;

    // To be called when the file holds what the last Update described.
    void MarkSaved();
    // To be called when it is unknown what the file holds, or when that is not worth keeping: the
    // next Update gives a whole file, even one without entries.
    void StartOver();
    // To be called when the file holds nothing but a header without entries, or is about to:
    // Header() then shows it.
    void Reset();

  private:
    // Bytes of the buffer that is always there: room for the header and the entries of a usual
    // save.
    static constexpr u32 kSmallSize = 4096;

    // What the file holds.
    struct Saved {
        u32 count = 0;          // entries
        u32 checksum = 0;       // over these entries
        TIndexEntry last = {};  // the last of them; means nothing while count is 0
    };

    BlockIndex::const_iterator FindLastSaved(const BlockIndex& blockIndex) const;
    void BeginWhole();
    void BeginTail();
    [[nodiscard]] bool TakeIn(BlockIndex::const_iterator from, BlockIndex::const_iterator end);
    [[nodiscard]] bool Append(const TIndexEntry& entry);
    void CountIn(const TIndexEntry& entry);
    void CountOut(const TIndexEntry& entry);
    void Seal();
    [[nodiscard]] bool Grow();
    void FreeLargeBuffer();
    bool HasEntries() const { return m_size > sizeof(TIndexHeader); }
    TIndexEntry LastEntry() const;

    const u32 m_blockSize;   // bytes
    const u32 m_maxEntries;  // 1 to kMaxIndexEntries

    Saved m_saved;
    // StartOver was called and nothing was saved since: the next Update answers kChanged.
    bool m_fileUnknown = false;

    TIndexHeader m_header = {};  // copied to the bytes when the entries are complete
    bool m_isWhole = true;

    platform::MemoryBuffer m_small;     // kSmallSize bytes
    platform::MemoryBuffer m_large;     // null while the small buffer is enough
    u8* m_bytes;                        // points into the buffer in use: header, then entries
    u32 m_size = sizeof(TIndexHeader);  // bytes in use there
    u32 m_capacity = kSmallSize;        // bytes of that buffer
};

}  // namespace k9erepl

#endif  // K9EREPL_INDEX_INDEX_IMAGE_H
