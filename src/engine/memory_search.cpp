// The search in memory; see the header.
#include "engine/memory_search.h"

#include <cassert>

#include "engine/block_records.h"
#include "support/result.h"

namespace k9erepl {

bool MemorySearch::Find(BlockIndex::const_iterator holding, ClearSearch* search) {
    assert(!search->FoundKept());
    u64 removed = 0;
    for (; holding != m_blocks.Index().end(); ++holding) {
        K9eReplBlock* const block = holding->second.block;
        if (block == nullptr) {
            return false;
        }
        Place place;
        const InBlock found = FindInBlock(*block, search->minRev, &place);
        if (found == InBlock::kAllBelow) {
            removed += block->used;
            continue;
        }
        const i64 fileOffset =
            found == InBlock::kFound ? FileOffsetOf(holding->second, place) : kUnknownOffset;
        if (fileOffset == kUnknownOffset) {
            return false;
        }
        search->newFirstRev = place.rev;
        search->newFirstRecOffset = fileOffset;
        search->recSz = static_cast<u32>(removed + place.offset);
        return true;
    }
    return false;
}

MemorySearch::InBlock MemorySearch::FindInBlock(K9eReplBlock& block, i64 minRev,
                                                Place* place) const {
    for (u64 offset = m_blocks.OffsetFor(block, minRev); offset < block.used;) {
        BlockRecord record;
        if (!ReadBlockRecord(block, offset, &record)) {
            return InBlock::kDamaged;
        }
        if (record.rec->rev >= minRev) {
            *place = {.rev = record.rec->rev, .offset = offset};
            return InBlock::kFound;
        }
        offset += record.size;
    }
    return InBlock::kAllBelow;
}

i64 MemorySearch::FileOffsetOf(const IndexEntry& entry, const Place& place) {
    K9eReplBlock& block = *entry.block;
    const i64 base = entry.fileOffset.load(std::memory_order_acquire);
    if (base == kUnknownOffset || place.rev > m_blocks.FlushedRev() ||
        place.offset >= block.flushedEnd ||
        block.pendingWrites.load(std::memory_order_acquire) != 0) {
        return kUnknownOffset;
    }
    const BlockNotes notes = m_blocks.NotesOf(block);
    const BlockNote* const note = notes.Find(place.rev);
    if (note != nullptr && (note->offset > place.offset || !m_blocks.NoteHolds(block, *note))) {
        return kUnknownOffset;
    }
    const u32 shift = note == nullptr ? 0 : note->fileShift;
    if (shift == BlockNotes::kUnknownShift) {
        return kUnknownOffset;
    }
    const BlockNote* const next = note == nullptr ? notes.Notes() : note + 1;
    const bool sameShift = next < notes.Notes() + notes.Count() && next->fileShift == shift &&
                           next->offset > place.offset && m_blocks.NoteHolds(block, *next);
    const u64 noteOffset = note == nullptr ? 0 : note->offset;
    if (place.offset == noteOffset || sameShift) {
        return base + static_cast<i64>(place.offset) + shift;
    }
    return ReadOffset(base + static_cast<i64>(noteOffset) + shift, place);
}

i64 MemorySearch::ReadOffset(i64 startOffset, const Place& place) {
    ClearSearch search{.minRev = place.rev, .stopAtKept = true};
    const FileEnumRange range{.fromRev = place.rev, .toRev = place.rev, .startOffset = startOffset};
    bool completed = true;
    const ResultCode rc = m_file.EnumFileRecs(range, &ClearSearch::Visit, &search, &completed);
    return rc == RC_ENUM_STOP && search.newFirstRev == place.rev ? search.newFirstRecOffset
                                                                 : kUnknownOffset;
}

}  // namespace k9erepl
