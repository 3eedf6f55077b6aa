// Keeping, finding and dropping notes of the file; see the header.
#include "index/file_notes.h"

#include <cassert>
#include <limits>
#include <new>
#include <span>
#include <utility>

namespace k9erepl {

const FileNote* FileNotes::Find(i64 key, i64 rev) {
    const Block* const block = UseKnown(key);
    return block == nullptr ? nullptr : LastNoteUpTo(std::span<const FileNote>(block->notes), rev);
}

void FileNotes::Add(i64 key, const FileNote& note) {
    if (!IsOn() || note.distance < kInterval) {
        return;
    }
    try {
        Block& block = Use(key);
        const std::size_t before = MemoryOf(block);
        if (block.notes.empty() ||
            (note.rev > block.notes.back().rev &&
             note.distance >= u64{block.notes.back().distance} + kInterval)) {
            block.notes.push_back(note);
        }
        Recount(block, before);
    } catch (const std::bad_alloc&) {
        Forget(key);
    }
}

u64 FileNotes::NextDistance(i64 key) const {
    const auto place = m_places.find(key);
    const bool hasNotes = place != m_places.end() && !place->second->notes.empty();
    return kInterval + (hasNotes ? u64{place->second->notes.back().distance} : 0);
}

void FileNotes::Put(i64 key, std::vector<FileNote> notes) {
    Forget(key);
    if (!IsOn() || notes.empty()) {
        return;
    }
    try {
        Block& block = Use(key);
        const std::size_t before = MemoryOf(block);
        block.notes = std::move(notes);
        Recount(block, before);
    } catch (const std::bad_alloc&) {
        Forget(key);
    }
}

void FileNotes::Take(i64 key, const BlockNotes& notes) {
    if (!IsOn()) {
        return;
    }
    std::vector<FileNote> kept;
    try {
        kept.reserve(notes.Count());
    } catch (const std::bad_alloc&) {
        return;
    }
    for (const BlockNote& note : std::span(notes.Notes(), notes.Count())) {
        const u64 distance = u64{note.offset} + note.fileShift;
        if (note.fileShift != BlockNotes::kUnknownShift &&
            distance <= std::numeric_limits<u32>::max()) {
            kept.push_back({note.rev, static_cast<u32>(distance)});
        }
    }
    Put(key, std::move(kept));
}

FileNotes::Block* FileNotes::UseKnown(i64 key) {
    if (m_order.empty() || m_order.front().key != key) {
        const auto found = m_places.find(key);
        if (found == m_places.end()) {
            return nullptr;
        }
        m_order.splice(m_order.begin(), m_order, found->second);
    }
    return &m_order.front();
}

FileNotes::Block& FileNotes::Use(i64 key) {
    if (Block* const known = UseKnown(key)) {
        return *known;
    }
    m_order.push_front({key, {}});
    try {
        m_places.emplace(key, m_order.begin());
    } catch (const std::bad_alloc&) {
        m_order.pop_front();
        throw;
    }
    m_memory += MemoryOf(m_order.front());
    return m_order.front();
}

void FileNotes::Recount(const Block& block, std::size_t before) {
    m_memory += MemoryOf(block) - before;
    while (m_memory > m_limit) {
        assert(!m_order.empty());
        Drop(m_places.find(m_order.back().key));
    }
}

FileNotes::Places::iterator FileNotes::Drop(Places::iterator place) {
    assert(place != m_places.end());
    m_memory -= MemoryOf(*place->second);
    m_order.erase(place->second);
    return m_places.erase(place);
}

void FileNotes::Forget(i64 key) {
    if (const auto place = m_places.find(key); place != m_places.end()) {
        Drop(place);
    }
}

void FileNotes::ForgetBelow(i64 key) {
    while (!m_places.empty() && m_places.begin()->first < key) {
        Drop(m_places.begin());
    }
}

void FileNotes::ForgetAbove(i64 key) {
    for (auto place = m_places.upper_bound(key); place != m_places.end();) {
        place = Drop(place);
    }
}

void FileNotes::Clear() {
    m_places.clear();
    m_order.clear();
    m_memory = 0;
}

}  // namespace k9erepl
