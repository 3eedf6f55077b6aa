// The bytes that the writing thread gathers before it writes them, with what is to be told when
// they are in the file: offsets to fill in and blocks to release. Used by the asynchronous writer.
#ifndef K9EREPL_WRITERS_ASYNC_BUFFER_H
#define K9EREPL_WRITERS_ASYNC_BUFFER_H

#include <atomic>
#include <vector>

#include "platform/int_types.h"
#include "platform/memory.h"

namespace k9erepl {

// One piece of the buffer, or one that is written directly.
struct AsyncPiece {
    const u8* data = nullptr;
    u32 size = 0;
    std::atomic<i32>* pendingWrites = nullptr;  // of the memory block; may be null
    std::atomic<i64>* filePosition = nullptr;   // may be null
};

// Lowers the count of a piece that is in the file. True when it was the block's last one.
inline bool ReleasePiece(std::atomic<i32>* pendingWrites) {
    return pendingWrites != nullptr && pendingWrites->fetch_sub(1, std::memory_order_acq_rel) == 1;
}

// The writing thread's alone while that runs.
class AsyncBuffer {
  public:
    // Up to this capacity the buffer lies inside the object.
    static constexpr u32 kInnerCapacity = 16384;

    explicit AsyncBuffer(u32 capacity) : m_capacity(capacity) {}
    AsyncBuffer(const AsyncBuffer&) = delete;
    AsyncBuffer& operator=(const AsyncBuffer&) = delete;

    // Allocates what does not lie inside. False when there is no memory.
    bool Init();

    u32 Capacity() const { return m_capacity; }
    u32 Size() const { return m_size; }
    u32 Free() const { return m_capacity - m_size; }
    bool IsEmpty() const { return m_size == 0; }
    const u8* Bytes() const { return m_bytes; }

    // Copies the piece, which will lie at `offset` of the file. Null when there is no memory, else
    // where the copy lies. REQUIRES: it fits.
    u8* Place(const AsyncPiece& piece, i64 offset);

    // The bytes are in the file: offsets that are still unknown are filled in, then the pieces
    // are released; *released tells whether some block has no queued write any more. The buffer
    // is empty then.
    void Settle(bool* released);

  private:
    struct Promise {
        std::atomic<i32>* pendingWrites;
        std::atomic<i64>* filePosition;
        i64 offset;
    };

    const u32 m_capacity;
    u32 m_size = 0;
    u8* m_bytes = m_inner;
    u8 m_inner[kInnerCapacity];
    platform::MemoryBuffer m_outer;
    std::vector<Promise> m_promises;  // keeps its memory
};

}  // namespace k9erepl

#endif  // K9EREPL_WRITERS_ASYNC_BUFFER_H
