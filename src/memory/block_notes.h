// The notes of a memory block: about every 4 KiB of records they say which revision begins where,
// so that a range need not walk the block from its start. The block store keeps them; walks and
// clears look a revision up, a flush adds where the records lie in the file.
#ifndef K9EREPL_MEMORY_BLOCK_NOTES_H
#define K9EREPL_MEMORY_BLOCK_NOTES_H

#include <algorithm>
#include <limits>
#include <span>

#include "memory/repl_block.h"
#include "platform/int_types.h"

namespace k9erepl {

// One note: the record `rev` begins `offset` bytes into the block's data.
struct BlockNote {
    i64 rev;
    u32 offset;  // bytes, above 0 and below block_size
    // Bytes of commit blocks that lie in the file between the block's first record and this one: by
    // so much the two are further apart there than in memory. BlockNotes::kUnknownShift until the
    // record is in the file.
    u32 fileShift;
};
static_assert(sizeof(BlockNote) == 16);

// The last of these notes whose revision is not above `rev`; null when there is none. They rise by
// revision.
template <typename Note>
const Note* LastNoteUpTo(std::span<const Note> notes, i64 rev) {
    const auto above =
        std::upper_bound(notes.begin(), notes.end(), rev,
                         [](i64 wanted, const Note& note) { return wanted < note.rev; });
    return above == notes.begin() ? nullptr : &*(above - 1);
}

// A view of the notes of one block, which lie behind the block's spare bytes, in the same
// allocation: so they never lack memory. They are an aid only: whoever uses a note checks that the
// record is there. Under the storage's lock; the block outlives this object.
class BlockNotes {
  public:
    // The least bytes of records between two notes.
    static constexpr u32 kInterval = 4096;
    static constexpr u32 kUnknownShift = std::numeric_limits<u32>::max();

    // How many notes a block with `blockSize` bytes for records may have. A small block has none,
    // nor one to which the notes could not be added in 32 bits.
    static constexpr u32 Most(u32 blockSize) {
        const u32 most = blockSize < 2 * kInterval ? 0 : (blockSize - 1) / kInterval;
        const u64 end = Begin(blockSize) + u64{most} * sizeof(BlockNote);
        return end > std::numeric_limits<u32>::max() ? 0 : most;
    }
    // The bytes that such a block needs for its notes, behind its head, data and spare bytes. At
    // most 0.5 % of the block.
    static constexpr u32 MemorySize(u32 blockSize) {
        const u32 most = Most(blockSize);
        return most == 0 ? 0
                         : static_cast<u32>(Begin(blockSize) - kBlockOverhead - blockSize) +
                               most * static_cast<u32>(sizeof(BlockNote));
    }

    // REQUIRES: the block was allocated with MemorySize(blockSize) bytes behind its spare bytes.
    BlockNotes(K9eReplBlock& block, u32 blockSize);

    // For a block that comes from the pool: it has no notes, and its place in the file is unknown.
    void Reset();
    // Forgets all notes.
    void Forget() { CutTo(0); }

    // To be called before a record is placed that would end behind the block's `roomEnd`. Notes the
    // record if enough bytes lie between it and the note before it. `fileOffset` is where it lies
    // in the file, kUnknownOffset if it is not there.
    void Add(i64 rev, i64 fileOffset);
    // Forgets the notes of records at and behind `used` bytes.
    void CutTo(u64 used);
    // The first `cutBytes` bytes of the data were removed, and the block's first record now lies at
    // `fileOffset`; `movedBy` bytes behind the place where the first one lay before.
    void CutFront(u64 cutBytes, i64 fileOffset, i64 movedBy);

    // The data from `begin` to `end` was written, or queued to be written, at the file offset
    // `position`.
    void Written(u64 begin, u64 end, i64 position);
    // What was written from `begin` on was taken back.
    void Undone(u64 begin);

    // The number of notes.
    u32 Count() const;
    // The notes, rising by revision and offset.
    BlockNote* Notes() const;
    // The last note whose revision is not above `rev`; null when there is none.
    const BlockNote* Find(i64 rev) const;

  private:
    // Where the notes begin, in bytes from the start of the block.
    static constexpr u64 Begin(u32 blockSize) {
        return (u64{kBlockOverhead} + blockSize + alignof(i64) - 1) / alignof(i64) * alignof(i64);
    }
    // The shift of a record at `offset`, `distance` bytes behind the block's first one in the file.
    static u32 ShiftOf(i64 distance, u64 offset);
    // Lets the next note come one interval behind the last one.
    void SetRoomEnd();

    K9eReplBlock& m_block;
    const u32 m_blockSize;  // bytes for records (setting block_size)
};

}  // namespace k9erepl

#endif  // K9EREPL_MEMORY_BLOCK_NOTES_H
