// One enumeration: a walk over a range of revisions, in place through the blocks in memory and
// otherwise through what is read back from the file. The storage object makes one for each call.
#ifndef K9EREPL_ENGINE_RECORD_WALK_H
#define K9EREPL_ENGINE_RECORD_WALK_H

#include <k9erepl/storage.h>

#include "engine/block_store.h"
#include "engine/open_settings.h"
#include "engine/storage_status.h"
#include "platform/int_types.h"
#include "solid/solid_storage.h"

namespace k9erepl {

// Visits one record: its file offset, kUnknownOffset while it is not in the file, and the record.
// Non-zero ends the walk and becomes its result.
using RecordVisitor = u32 (*)(i64 offset, const K9eReplRec* rec, void* ctx);

// The client's callback as a visitor; `ctx` is a ClientVisitor.
struct ClientVisitor {
    K9eReplEnumCb callback;  // null: the walk fails with RC_INVALID_ARG at the first record
    void* context;

    [[nodiscard]] static u32 Visit(i64 /*offset*/, const K9eReplRec* rec, void* ctx) {
        const auto& client = *static_cast<const ClientVisitor*>(ctx);
        return client.callback == nullptr ? RC_INVALID_ARG : client.callback(rec, client.context);
    }
};

// A visitor may change the storage; whenever blocks moved or went while it ran, the walk drops its
// place and finds it again behind the last record that it delivered. The storage's lock is held
// for the whole walk.
class RecordWalk {
  public:
    // The parts that a walk reads. Stored data that cannot be trusted breaks the storage.
    struct Source {
        const OpenSettings& settings;
        StorageStatus& status;
        const BlockStore& blocks;
        CSolidStorage& file;
    };

    RecordWalk(const Source& source, RecordVisitor visitor, void* ctx)
        : m_source(source), m_blocks(source.blocks), m_visitor(visitor), m_ctx(ctx) {}
    RecordWalk(const RecordWalk&) = delete;
    RecordWalk& operator=(const RecordWalk&) = delete;

    // Visits the records from `fromRev` to `toRev`, both included, that are still served. Once.
    // Errors: the visitor's; RC_BAD_DATA; those of CSolidStorage::EnumFileRecs.
    [[nodiscard]] u32 Run(i64 fromRev, i64 toRev);

  private:
    // The walk goes on to the next block, or it ends: m_result is its result, unless the place was
    // lost.
    enum class Walk { kOn, kEnd };

    void WalkFrom(i64 startRev);
    Walk WalkMemory(i64 firstRev, const IndexEntry& entry, i64 startRev);
    Walk WalkFile(BlockIndex::const_iterator& it, i64 startRev);
    Walk CheckOnDisk(i64 firstRev, const IndexEntry& entry);
    Walk Visit(i64 offset, const K9eReplRec* rec);
    [[nodiscard]] static u32 VisitFromFile(i64 offset, const K9eReplRec* rec, void* ctx);
    bool GoesOnIn(const MemoryBlocks::value_type& entry) const;
    i64 FileOffset(const IndexEntry& entry, u64 distance, i64 rev) const;
    i64 OffsetReached(i64 toRev) const;

    Walk End(u32 rc) {
        m_result = rc;
        return Walk::kEnd;
    }
    Walk Fail() { return End(m_source.status.Break(RC_BAD_DATA)); }

    const Source m_source;
    const BlockStore& m_blocks;
    const RecordVisitor m_visitor;
    void* const m_ctx;
    i64 m_toRev = 0;
    u32 m_result = RC_OK;
    i64 m_lastDelivered = 0;   // revision; 0: none yet
    bool m_placeLost = false;  // blocks moved or went during the last visit
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_RECORD_WALK_H
