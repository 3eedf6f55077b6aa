// Gathers small pieces so that the writing thread can write them with one system call. For each
// piece it also keeps what must be done when the bytes are in the file: an offset to fill in and a
// memory block to release. The asynchronous writer owns one; the setting async_buffer_size gives
// its capacity.
#ifndef K9EREPL_WRITERS_ASYNC_BUFFER_H
#define K9EREPL_WRITERS_ASYNC_BUFFER_H

#include <atomic>
#include <vector>

#include "platform/int_types.h"
#include "platform/memory.h"

namespace k9erepl {

// One piece on its way into the buffer. It owns nothing: what it points at stays where it is until
// Settle, `data` until Place has copied it.
struct AsyncPiece {
    const u8* data = nullptr;
    u32 size = 0;  // bytes
    // The count of queued writes in the piece's memory block, which covers this piece. Null when
    // the bytes belong to no block.
    std::atomic<i32>* pendingWrites = nullptr;
    // Receives the offset of the piece in the file, if it holds kUnknownOffset. Null when nobody
    // wants it.
    std::atomic<i64>* filePosition = nullptr;
};

// Lowers the count of queued writes for a piece that is in the file; null does nothing. Returns
// true when that was the block's last queued write.
[[nodiscard]] inline bool ReleasePiece(std::atomic<i32>* pendingWrites) {
    return pendingWrites != nullptr && pendingWrites->fetch_sub(1, std::memory_order_acq_rel) == 1;
}

// Belongs to the writing thread alone while that runs; it has no lock.
class AsyncBuffer {
  public:
    // Up to this capacity, in bytes, the buffer lies inside the object. Also the default capacity.
    static constexpr u32 kInnerCapacity = 16384;

    // `capacity` is in bytes; with 0 no piece fits, and everything is written directly.
    explicit AsyncBuffer(u32 capacity) : m_capacity(capacity) {}
    AsyncBuffer(const AsyncBuffer&) = delete;
    AsyncBuffer& operator=(const AsyncBuffer&) = delete;

    // Allocates a buffer that does not fit into the object. To be called once, before the first
    // Place. Returns false when there is no memory.
    [[nodiscard]] bool Init();

    u32 Capacity() const { return m_capacity; }
    u32 Size() const { return m_size; }
    u32 Free() const { return m_capacity - m_size; }
    bool IsEmpty() const { return m_size == 0; }
    const u8* Bytes() const { return m_bytes; }

    // Copies the piece, which will lie at `offset` of the file. Returns where the copy lies, so
    // that the caller can still link a commit block; null when there is no memory, and then the
    // buffer is unchanged. REQUIRES: piece.size <= Free().
    u8* Place(const AsyncPiece& piece, i64 offset);

    // To be called when all the bytes are in the file. Fills in the offsets that are still unknown,
    // then releases the pieces, and empties the buffer. *released becomes true when some block has
    // no queued write any more.
    void Settle(bool* released);

  private:
    // What Settle owes one piece; see AsyncPiece.
    struct Promise {
        std::atomic<i32>* pendingWrites;  // or null
        std::atomic<i64>* filePosition;   // or null
        i64 offset;                       // of the piece in the file
    };

    const u32 m_capacity;             // bytes
    u32 m_size = 0;                   // bytes in use
    u8* m_bytes = m_inner;            // points to m_inner or into m_outer
    u8 m_inner[kInnerCapacity];       // not set
    platform::MemoryBuffer m_outer;   // null when the capacity fits into m_inner
    std::vector<Promise> m_promises;  // keeps its memory when the buffer is emptied
};

}  // namespace k9erepl

#endif  // K9EREPL_WRITERS_ASYNC_BUFFER_H
