// A bounded table of places in the storage file: about every 4 KiB of a block that is only in the
// file, it says which revision begins where, so that a range need not read the block from its
// start. The block store owns one and keeps it in step with the block index; walks look places up
// and note those that they pass.
#ifndef K9EREPL_INDEX_FILE_NOTES_H
#define K9EREPL_INDEX_FILE_NOTES_H

#include <cstddef>
#include <list>
#include <map>
#include <vector>

#include "memory/block_notes.h"
#include "platform/int_types.h"

namespace k9erepl {

// The record `rev` begins `distance` bytes behind the block's first record in the file.
struct FileNote {
    i64 rev;
    u32 distance;  // above 0
};

// Notes are an aid only: one that is missing costs time, and whoever uses one checks that the
// record is there. So nothing here fails or throws: what does not fit the limit or memory is
// dropped, the blocks first that were not used for the longest time. The key of a block is that of
// the block index. Guarded by the storage's lock.
class FileNotes {
  public:
    // The least bytes between two notes.
    static constexpr u32 kInterval = 4096;

    FileNotes() = default;
    FileNotes(const FileNotes&) = delete;
    FileNotes& operator=(const FileNotes&) = delete;

    // Sets how many bytes of memory the table may use (setting range_index_memory); 0, as at first,
    // switches it off. To be called while it is empty.
    void SetLimit(std::size_t bytes) { m_limit = bytes; }
    bool IsOn() const { return m_limit != 0; }

    // The last note of the block whose revision is not above `rev`; null when there is none. Valid
    // until the next call that is not const. The block counts as used.
    const FileNote* Find(i64 key, i64 rev);
    // Adds a note to those of the block. Does nothing unless it lies an interval behind the last
    // one and has a higher revision.
    void Add(i64 key, const FileNote& note);
    // How far behind the block's first record the next note may lie.
    u64 NextDistance(i64 key) const;
    // Makes these the notes of the block; they rise by revision and distance. No notes: forgets it.
    void Put(i64 key, std::vector<FileNote> notes);
    // Does that with the notes of a block that leaves memory, as far as its records are in the
    // file.
    void Take(i64 key, const BlockNotes& notes);

    void Forget(i64 key);
    // Forget the blocks whose keys are below or above `key`.
    void ForgetBelow(i64 key);
    void ForgetAbove(i64 key);
    void Clear();

    // Bytes of memory in use, at most the limit.
    std::size_t Memory() const { return m_memory; }

  private:
    struct Block {
        i64 key;
        std::vector<FileNote> notes;
    };
    using Order = std::list<Block>;
    using Places = std::map<i64, Order::iterator>;

    // What a block costs beside its notes: the nodes of list and map, roughly.
    static constexpr std::size_t kBlockMemory = 128;
    static std::size_t MemoryOf(const Block& block) {
        return kBlockMemory + block.notes.capacity() * sizeof(FileNote);
    }

    // Makes the block the one that was used last, and returns it; null when it has no notes yet.
    Block* UseKnown(i64 key);
    // The same, but a block without notes gets a place. Throws std::bad_alloc.
    Block& Use(i64 key);
    // Replaces what `block` counted before by what it uses now, and drops blocks until the limit is
    // kept; perhaps `block` itself.
    void Recount(const Block& block, std::size_t before);
    Places::iterator Drop(Places::iterator place);

    std::size_t m_limit = 0;   // bytes
    std::size_t m_memory = 0;  // bytes
    Order m_order;             // the block used last comes first
    Places m_places;           // one for each block of m_order
};

}  // namespace k9erepl

#endif  // K9EREPL_INDEX_FILE_NOTES_H
