// The way of a walk through memory and file; see the header.
#include "engine/record_walk.h"

#include <algorithm>
#include <cassert>
#include <iterator>
#include <limits>

#include "engine/block_records.h"
#include "engine/revision.h"
#include "support/log.h"

namespace k9erepl {

ResultCode RecordWalk::Run(i64 fromRev, i64 toRev) {
    assert(m_lastDelivered == 0);
    m_toRev = toRev;
    do {
        m_placeLost = false;
        WalkFrom(std::max(fromRev, m_blocks.OldestRev()));
        fromRev = NextRevAfter(m_lastDelivered);
    } while (m_placeLost && m_lastDelivered < m_toRev);
    return m_result;
}

void RecordWalk::WalkFrom(i64 startRev) {
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

RecordWalk::Walk RecordWalk::WalkMemory(i64 firstRev, const IndexEntry& entry, i64 startRev) {
    assert(entry.block != nullptr);
    const K9eReplBlock& block = *entry.block;
    // A visitor may append to this very block, so its used size is read each time.
    for (u64 offset = m_blocks.OffsetFor(*entry.block, startRev); offset < block.used;) {
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

i64 RecordWalk::FileOffset(const IndexEntry& entry, u64 distance, i64 rev) const {
    const i64 blockOffset = entry.fileOffset.load(std::memory_order_relaxed);
    return blockOffset == kUnknownOffset || rev > m_blocks.FlushedRev()
               ? kUnknownOffset
               : blockOffset + static_cast<i64>(distance);
}

RecordWalk::Walk RecordWalk::Visit(i64 offset, const K9eReplRec* rec) {
    const i64 rev = rec->rev;
    assert(rev <= m_toRev);
    const u64 generation = m_blocks.Generation();
    if (ResultCode rc = m_visitor(offset, rec, m_ctx); rc != RC_OK) {
        return End(rc);
    }
    m_lastDelivered = rev;
    m_placeLost = m_blocks.Generation() != generation;
    return m_placeLost ? Walk::kEnd : Walk::kOn;
}

ResultCode RecordWalk::VisitFromFile(i64 offset, const K9eReplRec* rec, void* ctx) {
    auto& walk = *static_cast<RecordWalk*>(ctx);
    return offset < walk.m_lookAt ? walk.VisitInRange(offset, rec) : walk.LookAndVisit(offset, rec);
}

ResultCode RecordWalk::VisitInRange(i64 offset, const K9eReplRec* rec) {
    if (Visit(offset, rec) == Walk::kOn) {
        return RC_OK;
    }
    return m_placeLost ? RC_ENUM_STOP : m_result;
}

RecordWalk::Walk RecordWalk::CheckOnDisk(i64 firstRev, const IndexEntry& entry) {
    assert(entry.block == nullptr);
    if (!m_source.settings.HasFile()) {
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

// One pass over the file covers all blocks up to the first one held in memory; `it` then points at
// that block's entry.
RecordWalk::Walk RecordWalk::WalkFile(BlockIndex::const_iterator& it, i64 startRev) {
    if (CheckOnDisk(it->first, it->second) == Walk::kEnd) {
        return Walk::kEnd;
    }
    const auto lowest = m_blocks.Blocks().upper_bound(it->first);
    const bool goesOn = lowest != m_blocks.Blocks().end() && GoesOnIn(*lowest);
    const i64 nextKey = goesOn ? lowest->first : 0;
    const i64 passTo = goesOn ? nextKey - 1 : m_toRev;
    LOG_INFO(kLogStorage, "Enum from disk %I64d-%I64d", startRev, passTo);
    m_startRev = startRev;
    bool completed = true;
    const ResultCode rc = EnumFile(it, passTo, &completed);
    if (m_placeLost) {
        return Walk::kEnd;
    }
    // A read-only storage does not break: it can be loaded again.
    if (rc != RC_OK && completed && !m_source.settings.readOnly) {
        m_source.status.Set(StorageState::kBroken);
    }
    if (rc != RC_OK || !goesOn) {
        return End(rc);
    }
    it = m_blocks.Index().lower_bound(nextKey);
    return Walk::kOn;
}

ResultCode RecordWalk::EnumFile(BlockIndex::const_iterator it, i64 passTo, bool* completed) {
    const i64 blockOffset = it->second.fileOffset;
    FileNotes& notes = m_source.notesInFile;
    m_notedBlock = it;
    m_noteAt = blockOffset;
    m_lookAt = notes.IsOn() ? 0 : std::numeric_limits<i64>::max();
    FileEnumRange range{.fromRev = m_startRev,
                        .toRev = passTo,
                        .startOffset = blockOffset,
                        .alsoPassed = notes.IsOn(),
                        .reachesTo = OffsetReached(passTo)};
    if (const FileNote* const note = notes.Find(it->first, m_startRev)) {
        range.startOffset = blockOffset + note->distance;
        range.startRev = note->rev;
        const ResultCode rc = m_source.file.EnumFileRecs(range, &VisitFromFile, this, completed);
        if (rc != kNoSuchRecord || !*completed) {
            return rc;
        }
        notes.Forget(it->first);
        range.startOffset = blockOffset;
        range.startRev.reset();
    }
    return m_source.file.EnumFileRecs(range, &VisitFromFile, this, completed);
}

ResultCode RecordWalk::LookAndVisit(i64 offset, const K9eReplRec* rec) {
    if (offset >= m_noteAt) {
        NoteFileRecord(offset, rec->rev);
    }
    if (rec->rev < m_startRev) {
        return RC_OK;
    }
    m_lookAt = m_noteAt;
    return VisitInRange(offset, rec);
}

void RecordWalk::NoteFileRecord(i64 offset, i64 rev) {
    const auto end = m_blocks.Index().end();
    auto next = std::next(m_notedBlock);
    const auto beginsAt = [](const IndexEntry& entry) {
        const i64 begin = entry.fileOffset.load(std::memory_order_acquire);
        return begin == kUnknownOffset ? std::numeric_limits<i64>::max() : begin;
    };
    while (next != end && beginsAt(next->second) <= offset) {
        m_notedBlock = next++;
    }
    FileNotes& notes = m_source.notesInFile;
    const i64 key = m_notedBlock->first;
    const i64 blockOffset = m_notedBlock->second.fileOffset;
    const i64 distance = offset - blockOffset;
    if (distance >= 0 && distance <= std::numeric_limits<u32>::max()) {
        notes.Add(key, {rev, static_cast<u32>(distance)});
    }
    const i64 wanted = blockOffset + static_cast<i64>(notes.NextDistance(key));
    // Without memory for more notes the table has forgotten the block.
    m_noteAt = wanted > offset ? wanted : offset + FileNotes::kInterval;
    if (next != end) {
        m_noteAt = std::min(m_noteAt, beginsAt(next->second));
    }
}

// The file offset up to which every record is at or below `toRev`. That is where a block begins:
// the last one in the file whose key is at most one above `toRev`. 0 when no such block is in the
// file.
i64 RecordWalk::OffsetReached(i64 toRev) const {
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

// True when the walk reaches this memory block. A range that ends with the block's first revision
// ends in the file, unless that record is not there yet.
bool RecordWalk::GoesOnIn(const MemoryBlocks::value_type& entry) const {
    const auto& [firstRev, block] = entry;
    const bool isInFile = firstRev <= m_blocks.FlushedRev() && block != nullptr &&
                          block->pendingWrites.load(std::memory_order_acquire) == 0;
    return m_toRev > firstRev || (m_toRev == firstRev && !isInFile);
}

}  // namespace k9erepl
