// One enumeration: a walk over a range of revisions that visits records in place in the memory
// blocks, and reads from the file the records of blocks that are not in memory. The storage object
// makes one for each call.
#ifndef K9EREPL_ENGINE_RECORD_WALK_H
#define K9EREPL_ENGINE_RECORD_WALK_H

#include <k9erepl/storage.h>

#include "engine/block_store.h"
#include "engine/open_settings.h"
#include "engine/storage_status.h"
#include "platform/int_types.h"
#include "solid/solid_storage.h"
#include "support/result.h"

namespace k9erepl {

// Visits one record. `offset` is where it lies in the file, kUnknownOffset while it is not there.
// `rec` is valid during the call. A result other than RC_OK ends the walk and becomes its result.
using RecordVisitor = u32 (*)(i64 offset, const K9eReplRec* rec, void* ctx);

// Makes the client's callback a visitor; `ctx` is a ClientVisitor.
struct ClientVisitor {
    K9eReplEnumCb callback;  // null: the walk fails with RC_INVALID_ARG at the first record
    void* context;           // handed to the callback, never looked at

    [[nodiscard]] static ResultCode Visit(i64 /*offset*/, const K9eReplRec* rec, void* ctx) {
        const auto& client = *static_cast<const ClientVisitor*>(ctx);
        return client.callback == nullptr ? RC_INVALID_ARG : client.callback(rec, client.context);
    }
};

// The storage's lock is held for the whole walk. A visitor may change the storage on the same
// thread. Whenever blocks moved or went while it ran, the walk drops its place and finds it again
// behind the last record that it delivered. So each record is delivered at most once, in rising
// order.
class RecordWalk {
  public:
    // The objects that a walk reads; they outlive it. When stored data cannot be trusted, the walk
    // breaks the storage.
    struct Source {
        const OpenSettings& settings;
        StorageStatus& status;
        const BlockStore& blocks;
        CSolidStorage& file;
        FileNotes& notesInFile;  // those of `blocks`
    };

    RecordWalk(const Source& source, RecordVisitor visitor, void* ctx)
        : m_source(source), m_blocks(source.blocks), m_visitor(visitor), m_ctx(ctx) {}
    RecordWalk(const RecordWalk&) = delete;
    RecordWalk& operator=(const RecordWalk&) = delete;

    // Visits the records from `fromRev` to `toRev`, both included, that are still served, those of
    // an open transaction, too. To be called once.
    // Errors: the visitor's result; RC_BAD_DATA, logged; those of CSolidStorage::EnumFileRecs.
    [[nodiscard]] ResultCode Run(i64 fromRev, i64 toRev);

  private:
    // Says whether the walk goes on to the next record or block. At its end m_result is the result,
    // unless the place was lost: then Run begins again from there.
    enum class Walk { kOn, kEnd };

    // Walks from `startRev` until the range ends or the place is lost.
    void WalkFrom(i64 startRev);
    // Visits the records of one block in memory; `firstRev` is the block's key.
    Walk WalkMemory(i64 firstRev, const IndexEntry& entry, i64 startRev);
    // Visits the records of blocks that are only in the file, in one pass.
    Walk WalkFile(BlockIndex::const_iterator& it, i64 startRev);
    // Enumerates the file from the block `it` up to `passTo`: from a note, if there is one that
    // holds.
    [[nodiscard]] ResultCode EnumFile(BlockIndex::const_iterator it, i64 passTo, bool* completed);
    // Visits a record of the file that lies in the range.
    [[nodiscard]] ResultCode VisitInRange(i64 offset, const K9eReplRec* rec);
    // For a record whose offset has reached m_lookAt: notes it where that helps a later walk, and
    // visits it unless it lies before the range.
    [[nodiscard]] ResultCode LookAndVisit(i64 offset, const K9eReplRec* rec);
    // REQUIRES: offset has reached m_noteAt.
    void NoteFileRecord(i64 offset, i64 rev);
    // kEnd, logged, when the block under the key `firstRev` cannot be read from the file.
    Walk CheckOnDisk(i64 firstRev, const IndexEntry& entry);
    // Hands one record to the visitor and learns whether it moved the blocks.
    Walk Visit(i64 offset, const K9eReplRec* rec);
    // The same, as a FileItemVisitor; `ctx` is a RecordWalk.
    [[nodiscard]] static ResultCode VisitFromFile(i64 offset, const K9eReplRec* rec, void* ctx);
    bool GoesOnIn(const MemoryBlocks::value_type& entry) const;
    // The file offset of the record `rev`, `distance` bytes into the block of `entry`.
    i64 FileOffset(const IndexEntry& entry, u64 distance, i64 rev) const;
    i64 OffsetReached(i64 toRev) const;

    Walk End(ResultCode rc) {
        m_result = rc;
        return Walk::kEnd;
    }
    Walk Fail() { return End(m_source.status.Break(RC_BAD_DATA)); }

    const Source m_source;
    const BlockStore& m_blocks;  // that of m_source
    const RecordVisitor m_visitor;
    void* const m_ctx;
    // The last revision of the range, included; 0 before Run.
    i64 m_toRev = 0;
    u32 m_result = RC_OK;      // the result of the walk so far
    i64 m_lastDelivered = 0;   // revision of the record visited last; 0: none yet
    bool m_placeLost = false;  // blocks moved or went during the last visit

    // --- Of the enumeration of the file that is under way
    // Records below it are noted but not visited.
    i64 m_startRev = 0;
    // The entry of the block that is being read. Valid while the blocks stay as they are.
    BlockIndex::const_iterator m_notedBlock;
    // The file offset from which on a record is to be noted, or lies in the next block.
    i64 m_noteAt = 0;
    // The file offset from which on LookAndVisit is called: 0 until the range begins, then
    // m_noteAt. The largest number while nothing is noted.
    i64 m_lookAt = 0;
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_RECORD_WALK_H
