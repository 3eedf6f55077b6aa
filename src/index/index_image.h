// The bytes of the index file, and which of them the next save must write. No file and no thread
// here: the index worker fills the image from the block index, the file writer writes it.
#ifndef K9EREPL_INDEX_INDEX_IMAGE_H
#define K9EREPL_INDEX_INDEX_IMAGE_H

#include "format/index_file_format.h"
#include "index/block_index.h"
#include "platform/int_types.h"
#include "platform/memory.h"

namespace k9erepl {

// With more entries the file would not fit one write.
inline constexpr u32 kMaxIndexEntries = (0xFFFFFFFF - sizeof(TIndexHeader)) / sizeof(TIndexEntry);

enum class IndexUpdate { kUnchanged, kChanged, kNoMemory };

// Holds the header and those entries that the next save writes. After a save the entries' memory
// is given back: an update costs the blocks that are new, not those that the storage holds.
//
// The life of a save is Update, then, if that answers kChanged, the writing of the bytes, then
// MarkSaved or, when the writing failed, StartOver. A new image stands for a file without entries.
// One thread at a time.
class IndexImage {
  public:
    // `blockSize` goes into the header. Only tests need fewer than kMaxIndexEntries.
    // Throws K9eStorageException (RC_NO_MEMORY).
    explicit IndexImage(u32 blockSize, u32 maxEntries = kMaxIndexEntries);
    IndexImage(const IndexImage&) = delete;
    IndexImage& operator=(const IndexImage&) = delete;

    // Takes in the entries of `blockIndex` behind the last saved one, in order of revision, up to
    // the first block that is not in the storage file. Passed over are blocks without records and
    // entries that would break the ascending order of offsets; of two entries with one offset the
    // later stays. The last saved entry is taken out and in again. When `blockIndex` does not hold
    // it unchanged, everything is taken in anew.
    // kUnchanged: the file would stay as it is. kNoMemory: as after StartOver.
    IndexUpdate Update(const BlockIndex& blockIndex);

    // The bytes of the save: the whole file (IsWhole()), or the header and the tail of the entries
    // that begins at TailOffset() of the file. Valid until the next call that changes the image.
    bool IsWhole() const { return m_isWhole; }
    const u8* Whole() const { return m_bytes; }
    u32 WholeSize() const { return m_size; }
    const u8* Header() const { return m_bytes; }
    const u8* Tail() const { return m_bytes + sizeof(TIndexHeader); }
    u32 TailSize() const { return m_size - static_cast<u32>(sizeof(TIndexHeader)); }
    u32 TailOffset() const;

    // The file holds what the last Update described.
    void MarkSaved();
    // What the file holds is unknown or not worth keeping: the next Update gives a whole file, even
    // one without entries.
    void StartOver();
    // The file holds a header without entries, as Header() then shows it.
    void Reset();

  private:
    // Room for the entries of the usual save.
    static constexpr u32 kSmallSize = 4096;

    // What the file holds.
    struct Saved {
        u32 count = 0;
        u32 checksum = 0;
        TIndexEntry last = {};  // if count is not 0
    };

    BlockIndex::const_iterator FindLastSaved(const BlockIndex& blockIndex) const;
    void BeginWhole();
    void BeginTail();
    bool TakeIn(BlockIndex::const_iterator from, BlockIndex::const_iterator end);
    bool Append(const TIndexEntry& entry);
    void CountIn(const TIndexEntry& entry);
    void CountOut(const TIndexEntry& entry);
    void Seal();
    bool Grow();
    void FreeLargeBuffer();
    bool HasEntries() const { return m_size > sizeof(TIndexHeader); }
    TIndexEntry LastEntry() const;

    const u32 m_blockSize;
    const u32 m_maxEntries;

    Saved m_saved;
    bool m_fileUnknown = false;

    TIndexHeader m_header = {};  // copied to the bytes when the entries are complete
    bool m_isWhole = true;

    platform::MemoryBuffer m_small;  // kSmallSize bytes
    platform::MemoryBuffer m_large;  // while the small one is not enough
    u8* m_bytes;                     // the one in use: header, then entries
    u32 m_size = sizeof(TIndexHeader);
    u32 m_capacity = kSmallSize;
};

}  // namespace k9erepl

#endif  // K9EREPL_INDEX_INDEX_IMAGE_H
