// The buffers through which stored records are read back. The storage file owns one, tells it when
// the file changed, and asks it for bytes during an enumeration from disk.
#ifndef K9EREPL_MEMORY_READ_CACHE_MANAGER_H
#define K9EREPL_MEMORY_READ_CACHE_MANAGER_H

#include <atomic>
#include <cstddef>
#include <limits>
#include <vector>

#include "platform/int_types.h"
#include "platform/memory.h"
#include "platform/tracked_file.h"

namespace k9erepl {

// One piece of the file, as GetBuffer hands it out. `data` stays valid until the next GetBuffer
// or Invalidate.
struct ReadBuffer {
    static constexpr i64 kNoOffset = std::numeric_limits<i64>::max();

    i64 offset = kNoOffset;  // file offset of the first byte; kNoOffset when it holds nothing
    const u8* data = nullptr;
    u32 length = 0;   // valid bytes
    u32 lastUse = 0;  // tick count of the last hit or fill
};

// A request inside one buffer costs no system call; any other refills one buffer with up to 2 MiB
// from the requested offset on. No lock of its own: the storage's lock guards it.
class ReadCacheManager {
  public:
    static constexpr u32 kBufferSize = 2 * 1024 * 1024;

    // Reads through `file`, which is the storage file's, shared with it, and outlives this object.
    explicit ReadCacheManager(platform::TrackedFile& file);
    virtual ~ReadCacheManager();
    ReadCacheManager(const ReadCacheManager&) = delete;
    ReadCacheManager& operator=(const ReadCacheManager&) = delete;

    // Reads the setting read_buffers_count (1 to 32, default 8) and allocates that many buffers,
    // in place of earlier ones. `dataEnd` is the end of the written data, beyond which nothing is
    // read; it is the writer's and outlives the use of this object.
    // Errors: RC_BAD_SIZE for a refused count, RC_NO_MEMORY (there are no buffers then).
    u32 Init(const char* connStr, const std::atomic<i64>& dataEnd);
    // Frees the buffers. Init may follow.
    void Reset();

    // Sees to it that the bytes [offset, offset + size) are in one buffer, as far as the written
    // data reaches, and copies its entry into *current, which is the caller's previous buffer on
    // entry: a reader that moves forward reuses its own. The entry contains `offset`, though it
    // may begin before it; it may end before offset + size, where the written data ends. Behind
    // that end the entry handed out begins at `offset` and its length is 0.
    // REQUIRES: Init has succeeded; size is at most kBufferSize (a longer piece is never whole).
    // Errors: RC_SYSTEM_ERROR; *current is then unchanged, but what it points at may be gone.
    u32 GetBuffer(i64 offset, u32 size, ReadBuffer* current);

    // Marks every buffer empty. To be called when bytes of the file may have changed.
    void Invalidate();

  private:
    struct Entry : ReadBuffer {
        platform::MemoryBuffer memory;
    };

    bool Allocate(std::size_t count);
    std::size_t LowerBound(i64 offset) const;
    Entry* FindHit(i64 offset, u32 size);
    std::size_t ChooseVictim(const ReadBuffer& current) const;
    u32 Fill(std::size_t index, i64 offset, u32 length, ReadBuffer* current);
    u32 SeekTo(i64 offset);
    void Reorder(std::size_t index);

    platform::TrackedFile& m_file;
    const std::atomic<i64>* m_dataEnd = nullptr;
    std::vector<Entry> m_entries;  // ascending by offset, empty ones last
};

}  // namespace k9erepl

#endif  // K9EREPL_MEMORY_READ_CACHE_MANAGER_H
