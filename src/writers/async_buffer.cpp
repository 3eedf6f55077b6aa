// The buffer of gathered pieces; see the header.
#include "writers/async_buffer.h"

#include <cassert>
#include <cstring>
#include <new>

#include "format/storage_file_format.h"

namespace k9erepl {

bool AsyncBuffer::Init() {
    if (m_capacity <= kInnerCapacity) {
        return true;
    }
    m_outer = platform::AllocBuffer(m_capacity);
    m_bytes = m_outer.get();
    return m_bytes != nullptr;
}

u8* AsyncBuffer::Place(const AsyncPiece& piece, i64 offset) {
    assert(piece.size <= Free());
    if (piece.pendingWrites != nullptr || piece.filePosition != nullptr) {
        try {
            m_promises.push_back({piece.pendingWrites, piece.filePosition, offset});
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
    }
    u8* const place = m_bytes + m_size;
    std::memcpy(place, piece.data, piece.size);
    m_size += piece.size;
    return place;
}

// All offsets come first: whoever sees a block without queued writes must see its offset, too.
void AsyncBuffer::Settle(bool* released) {
    for (const Promise& promise : m_promises) {
        if (promise.filePosition != nullptr) {
            i64 unknown = kUnknownOffset;
            promise.filePosition->compare_exchange_strong(unknown, promise.offset);
        }
    }
    *released = false;
    for (const Promise& promise : m_promises) {
        *released = ReleasePiece(promise.pendingWrites) || *released;
    }
    m_promises.clear();
    m_size = 0;
}

}  // namespace k9erepl
