// Enumeration: handing out the records of a range of revisions, in place from the memory blocks
// and otherwise read back from the file.
#include <algorithm>

#include "engine/block_records.h"
#include "engine/repl_storage.h"
#include "support/log.h"

namespace k9erepl {

// One walk over a range. A visitor may change the storage; whenever blocks moved or went while it
// ran, the walk drops its place and finds it again behind the last record that it delivered.
class CK9eReplStorage::RecordWalk {
  public:
    RecordWalk(CK9eReplStorage& storage, i64 toRev, RecordVisitor visitor, void* ctx)
        : m_storage(storage),
          m_blocks(storage.m_blocks),
          m_toRev(toRev),
          m_visitor(visitor),
          m_ctx(ctx) {}

    u32 Run(i64 fromRev);

  private:
    // Whether the walk goes on to the next block; else m_result is its result, unless the place
    // was lost.
    enum class Walk { kOn, kEnd };

    void WalkFrom(i64 startRev);
    Walk WalkMemory(i64 firstRev, const IndexEntry& entry, i64 startRev);
    Walk WalkFile(BlockIndex::iterator& it, i64 startRev);
    Walk CheckOnDisk(i64 firstRev, const IndexEntry& entry);
    Walk Visit(i64 offset, const K9eReplRec* rec);
    static u32 VisitFromFile(i64 offset, const K9eReplRec* rec, void* ctx);
    bool GoesOnIn(const MemoryBlocks::value_type& entry) const;
    i64 FileOffset(const IndexEntry& entry, u64 distance, i64 rev) const;
    i64 OffsetReached(i64 toRev) const;

    Walk End(u32 rc) {
        m_result = rc;
        return Walk::kEnd;
    }
    Walk Fail() {
        m_storage.SetState(StorageState::kBroken);
        return End(RC_BAD_DATA);
    }

    CK9eReplStorage& m_storage;
    BlockList& m_blocks;
    const i64 m_toRev;
    const RecordVisitor m_visitor;
    void* const m_ctx;
    u32 m_result = RC_OK;
    i64 m_lastDelivered = 0;
    bool m_placeLost = false;
};

u32 CK9eReplStorage::RecordWalk::Run(i64 fromRev) {
    do {
        m_placeLost = false;
        WalkFrom(std::max(fromRev, m_storage.m_oldestRev));
        fromRev = NextRevAfter(m_lastDelivered);
    } while (m_placeLost && m_lastDelivered < m_toRev);
    return m_result;
}

void CK9eReplStorage::RecordWalk::WalkFrom(i64 startRev) {
    if (m_blocks.Index().empty()) {
        return;
    }
    auto it = m_blocks.FindHolding(startRev);
    if (it->first > m_toRev) {
        return;
    }
    Walk walk = Walk::kOn;
    while (walk == Walk::kOn && it != m_blocks.Index().end()) {
        if (it->second.block != nullptr) {
            walk = WalkMemory(it->first, it->second, startRev);
            if (walk == Walk::kOn) {
                ++it;
            }
        } else {
            walk = WalkFile(it, startRev);
        }
    }
}

CK9eReplStorage::RecordWalk::Walk CK9eReplStorage::RecordWalk::WalkMemory(i64 firstRev,
                                                                          const IndexEntry& entry,
                                                                          i64 startRev) {
    const K9eReplBlock& block = *entry.block;
    // A visitor may append to this very block: its used size is read anew each time.
    for (u64 offset = 0; offset < block.used;) {
        BlockRecord record;
        if (!ReadBlockRecord(block, offset, &record)) {
            LOG_ERROR_CODE(RC_BAD_DATA, kLogStorage, "Wrong rec signature;block rev %I64d",
                           firstRev);
            return Fail();
        }
        const i64 rev = record.rec->rev;
        if (rev > m_toRev) {
            return End(RC_OK);
        }
        if (rev >= startRev && Visit(FileOffset(entry, offset, rev), record.rec) == Walk::kEnd) {
            return Walk::kEnd;
        }
        offset += record.size;
    }
    return Walk::kOn;
}

i64 CK9eReplStorage::RecordWalk::FileOffset(const IndexEntry& entry, u64 distance, i64 rev) const {
    const i64 blockOffset = entry.fileOffset.load(std::memory_order_relaxed);
    return blockOffset == kUnknownOffset || rev > m_storage.m_flushedRev
               ? kUnknownOffset
               : blockOffset + static_cast<i64>(distance);
}

CK9eReplStorage::RecordWalk::Walk CK9eReplStorage::RecordWalk::Visit(i64 offset,
                                                                     const K9eReplRec* rec) {
    const i64 rev = rec->rev;
    const u64 generation = m_blocks.Generation();
    if (u32 rc = m_visitor(offset, rec, m_ctx); rc != RC_OK) {
        return End(rc);
    }
    m_lastDelivered = rev;
    m_placeLost = m_blocks.Generation() != generation;
    return m_placeLost ? Walk::kEnd : Walk::kOn;
}

u32 CK9eReplStorage::RecordWalk::VisitFromFile(i64 offset, const K9eReplRec* rec, void* ctx) {
    auto& walk = *static_cast<RecordWalk*>(ctx);
    if (walk.Visit(offset, rec) == Walk::kOn) {
        return RC_OK;
    }
    return walk.m_placeLost ? RC_ENUM_STOP : walk.m_result;
}

CK9eReplStorage::RecordWalk::Walk CK9eReplStorage::RecordWalk::CheckOnDisk(
    i64 firstRev, const IndexEntry& entry) {
    if (!m_storage.HasFile()) {
        LOG_ERROR_CODE(RC_BAD_DATA, kLogStorage,
                       "Failed to enum no block in mem in NoFlush mode;block rev %I64d", firstRev);
        return Fail();
    }
    if (entry.fileOffset == kUnknownOffset) {
        LOG_ERROR_CODE(RC_BAD_DATA, kLogStorage,
                       "Failed to enum,invalid file offset;block rev %I64d", firstRev);
        return Fail();
    }
    return Walk::kOn;
}

// One pass over the file covers all blocks up to the first one held in memory, where `it` then
// stands.
CK9eReplStorage::RecordWalk::Walk CK9eReplStorage::RecordWalk::WalkFile(BlockIndex::iterator& it,
                                                                        i64 startRev) {
    if (CheckOnDisk(it->first, it->second) == Walk::kEnd) {
        return Walk::kEnd;
    }
    const auto lowest = m_blocks.Blocks().upper_bound(it->first);
    const bool goesOn = lowest != m_blocks.Blocks().end() && GoesOnIn(*lowest);
    const i64 nextKey = goesOn ? lowest->first : 0;
    const i64 passTo = goesOn ? nextKey - 1 : m_toRev;
    LOG_INFO(kLogStorage, "Enum from disk %I64d-%I64d", startRev, passTo);
    const FileEnumRange range{.fromRev = startRev,
                              .toRev = passTo,
                              .startOffset = it->second.fileOffset,
                              .reachesTo = OffsetReached(passTo)};
    bool completed = true;
    const u32 rc = m_storage.m_solid.EnumFileRecs(range, &VisitFromFile, this, &completed);
    if (m_placeLost) {
        return Walk::kEnd;
    }
    // A read-only storage can be loaded again.
    if (rc != RC_OK && completed && !m_storage.IsReadOnly()) {
        m_storage.SetState(StorageState::kBroken);
    }
    if (rc != RC_OK || !goesOn) {
        return End(rc);
    }
    it = m_blocks.Index().lower_bound(nextKey);
    return Walk::kOn;
}

// The file offset up to which every record is at or below `toRev`: where the last block begins
// whose key is not above the revision behind it. 0 when no such block is in the file.
i64 CK9eReplStorage::RecordWalk::OffsetReached(i64 toRev) const {
    auto it = m_blocks.Index().upper_bound(NextRevAfter(toRev));
    while (it != m_blocks.Index().begin()) {
        --it;
        const i64 offset = it->second.fileOffset.load(std::memory_order_acquire);
        if (offset != kUnknownOffset) {
            return offset;
        }
    }
    return 0;
}

// Whether the walk reaches this memory block. A range that ends where the block begins ends in the
// file, unless that record is not there yet.
bool CK9eReplStorage::RecordWalk::GoesOnIn(const MemoryBlocks::value_type& entry) const {
    const auto& [firstRev, block] = entry;
    const bool isInFile = firstRev <= m_storage.m_flushedRev && block != nullptr &&
                          block->pendingWrites.load(std::memory_order_acquire) == 0;
    return m_toRev > firstRev || (m_toRev == firstRev && !isInFile);
}

namespace {

// Counts one more until the end of a scope.
class ScopedCount {
  public:
    explicit ScopedCount(u32& count) : m_count(count) { ++m_count; }
    ~ScopedCount() { --m_count; }
    ScopedCount(const ScopedCount&) = delete;
    ScopedCount& operator=(const ScopedCount&) = delete;

  private:
    u32& m_count;
};

}  // namespace

u32 CK9eReplStorage::EnumWithVisitor(i64 fromRev, i64 toRev, RecordVisitor visitor, void* ctx) {
    const ScopedCount walk(m_walks);
    return RecordWalk(*this, toRev, visitor, ctx).Run(fromRev);
}

namespace {

struct ClientCallback {
    K9eReplEnumCb callback;
    void* context;

    static u32 Deliver(i64 /*offset*/, const K9eReplRec* rec, void* ctx) {
        const auto& client = *static_cast<const ClientCallback*>(ctx);
        return client.callback == nullptr ? RC_INVALID_ARG : client.callback(rec, client.context);
    }
};

}  // namespace

std::uint32_t CK9eReplStorage::EnumRecords(std::int64_t fromRev, std::int64_t toRev,
                                           K9eReplEnumCb cb, void* cbContext) {
    const Guard guard(m_lock);
    if (State() != StorageState::kOpen) {
        LOG_ERROR_CODE(RC_WRONG_STATE, kLogStorage, "Failed to enum recs;state %d", StateForLog());
        return RC_WRONG_STATE;
    }
    ClientCallback client{cb, cbContext};
    return EnumWithVisitor(fromRev, toRev, &ClientCallback::Deliver, &client);
}

}  // namespace k9erepl
