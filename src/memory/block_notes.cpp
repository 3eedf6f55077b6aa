// Keeping and searching the notes of a memory block; see the header.
#include "memory/block_notes.h"

#include <algorithm>
#include <cassert>

#include "format/storage_file_format.h"

namespace k9erepl {

BlockNotes::BlockNotes(K9eReplBlock& block, u32 blockSize)
    : m_block(block), m_blockSize(blockSize) {}

void BlockNotes::Reset() {
    m_block.noteCount = 0;
    m_block.fileBase = kUnknownOffset;
    SetRoomEnd();
}

u32 BlockNotes::Count() const {
    return std::min(m_block.noteCount, Most(m_blockSize));
}

BlockNote* BlockNotes::Notes() const {
    return reinterpret_cast<BlockNote*>(reinterpret_cast<u8*>(&m_block) + Begin(m_blockSize));
}

void BlockNotes::SetRoomEnd() {
    m_block.roomEnd = m_blockSize;
    const u32 count = Count();
    if (count < Most(m_blockSize)) {
        const u64 next = u64{kInterval} + (count == 0 ? 0 : Notes()[count - 1].offset);
        m_block.roomEnd = static_cast<u32>(std::min<u64>(next, m_blockSize));
    }
}

u32 BlockNotes::ShiftOf(i64 distance, u64 offset) {
    const i64 shift = distance - static_cast<i64>(offset);
    return shift < 0 || shift >= i64{kUnknownShift} ? kUnknownShift : static_cast<u32>(shift);
}

void BlockNotes::Add(i64 rev, i64 fileOffset) {
    const u32 count = Count();
    if (m_block.used < m_block.roomEnd || count == Most(m_blockSize)) {
        return;
    }
    const bool isInFile = fileOffset != kUnknownOffset && m_block.fileBase != kUnknownOffset;
    Notes()[count] = {.rev = rev,
                      .offset = static_cast<u32>(m_block.used),
                      .fileShift = isInFile ? ShiftOf(fileOffset - m_block.fileBase, m_block.used)
                                            : kUnknownShift};
    m_block.noteCount = count + 1;
    SetRoomEnd();
}

void BlockNotes::CutTo(u64 used) {
    u32 count = Count();
    while (count > 0 && Notes()[count - 1].offset >= used) {
        --count;
    }
    m_block.noteCount = count;
    SetRoomEnd();
}

void BlockNotes::CutFront(u64 cutBytes, i64 fileOffset, i64 movedBy) {
    BlockNote* const notes = Notes();
    u32 kept = 0;
    for (u32 i = 0; i < Count(); ++i) {
        BlockNote note = notes[i];
        if (note.offset <= cutBytes) {
            continue;
        }
        if (note.fileShift != kUnknownShift) {
            note.fileShift =
                ShiftOf(i64{note.offset} + note.fileShift - movedBy, note.offset - cutBytes);
        }
        note.offset -= static_cast<u32>(cutBytes);
        notes[kept++] = note;
    }
    m_block.noteCount = kept;
    m_block.fileBase = fileOffset;
    SetRoomEnd();
}

void BlockNotes::Written(u64 begin, u64 end, i64 position) {
    assert(begin < end);
    if (begin == 0) {
        m_block.fileBase = position;
    }
    if (m_block.fileBase == kUnknownOffset) {
        return;
    }
    const u32 shift = ShiftOf(position - m_block.fileBase, begin);
    BlockNote* const notes = Notes();
    for (u32 i = Count(); i > 0 && notes[i - 1].offset >= begin; --i) {
        if (notes[i - 1].offset < end) {
            notes[i - 1].fileShift = shift;
        }
    }
}

void BlockNotes::Undone(u64 begin) {
    BlockNote* const notes = Notes();
    for (u32 i = Count(); i > 0 && notes[i - 1].offset >= begin; --i) {
        notes[i - 1].fileShift = kUnknownShift;
    }
}

const BlockNote* BlockNotes::Find(i64 rev) const {
    return LastNoteUpTo(std::span<const BlockNote>(Notes(), Count()), rev);
}

}  // namespace k9erepl
