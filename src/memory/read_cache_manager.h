// The buffers through which stored records are read back. The storage file has one for its
// enumerations, and more for enumerations inside another one's callback. It asks for bytes during
// an enumeration from disk, and says when bytes of the file have changed.
#ifndef K9EREPL_MEMORY_READ_CACHE_MANAGER_H
#define K9EREPL_MEMORY_READ_CACHE_MANAGER_H

#include <atomic>
#include <cstddef>
#include <limits>
#include <vector>

#include "platform/int_types.h"
#include "platform/memory.h"
#include "platform/tracked_file.h"
#include "support/result.h"

namespace k9erepl {

// One piece of the file, as GetBuffer hands it out. The bytes at `data` belong to the cache and
// stay valid until the next GetBuffer, Invalidate or Reset.
struct ReadBuffer {
    // Greater than any offset, so that empty buffers come last in the order of offsets.
    static constexpr i64 kNoOffset = std::numeric_limits<i64>::max();

    i64 offset = kNoOffset;  // file offset of the first byte; kNoOffset when it holds nothing
    const u8* data = nullptr;
    u32 length = 0;   // valid bytes, at most kBufferSize
    u32 lastUse = 0;  // tick count, in milliseconds, of the last hit or fill
};

// A request inside one buffer costs no system call; any other refills one buffer from the requested
// offset on, with as many bytes as the caller asks for, 2 MiB at most. It has no lock of its own:
// the storage's lock guards it.
class ReadCacheManager {
  public:
    static constexpr u32 kBufferSize = 2 * 1024 * 1024;  // bytes

    // Reads through `file`, which belongs to the storage file, is shared with its other readers and
    // outlives this object.
    explicit ReadCacheManager(platform::TrackedFile& file);
    virtual ~ReadCacheManager();
    ReadCacheManager(const ReadCacheManager&) = delete;
    ReadCacheManager& operator=(const ReadCacheManager&) = delete;

    // Reads the setting read_buffers_count (1 to 32, default 8) and allocates that many buffers,
    // in place of earlier ones. `dataEnd` is the end of the written data, beyond which nothing is
    // read. The writer moves it, perhaps on its own thread; it must live until Reset.
    // Errors: RC_BAD_SIZE for a refused count, which changes nothing; RC_NO_MEMORY, after which
    // there are no buffers.
    [[nodiscard]] ResultCode Init(const char* connStr, const std::atomic<i64>& dataEnd);
    // Frees the buffers. Init may follow.
    void Reset();

    // Makes sure that the bytes [offset, offset + size) are in one buffer, as far as the written
    // data reaches, and describes that buffer in *current. If that takes a read, it reads
    // `readSize` bytes, or `size` if that is more. On entry *current is the buffer that the
    // caller had before, so that a reader that moves forward reuses its own. The buffer contains
    // `offset`, though it may begin before it. It ends before offset + size where the written data
    // ends, or the file itself. Behind that end, *current begins at `offset` and its length is 0.
    // REQUIRES: Init has succeeded; size is at most kBufferSize (a longer piece is never whole),
    // and so is readSize. Errors: RC_SYSTEM_ERROR; *current is then unchanged, but what it points
    // at may be gone.
    [[nodiscard]] ResultCode GetBuffer(i64 offset, u32 size, ReadBuffer* current,
                                       u32 readSize = kBufferSize);

    // Marks every buffer empty. To be called when bytes that were read may have changed in the
    // file; bytes appended behind the written data need no call.
    void Invalidate();

  private:
    struct Entry : ReadBuffer {
        platform::MemoryBuffer memory;  // kBufferSize bytes, to which `data` points
    };

    [[nodiscard]] bool Allocate(std::size_t count);
    // The index of the first entry at or behind `offset`.
    std::size_t LowerBound(i64 offset) const;
    // Null when no buffer holds all of the bytes.
    Entry* FindHit(i64 offset, u32 size);
    // The index of the entry to refill: the caller's own, else an empty one, else the one that was
    // not used for the longest time.
    std::size_t ChooseVictim(const ReadBuffer& current) const;
    [[nodiscard]] ResultCode Fill(std::size_t index, i64 offset, u32 length, ReadBuffer* current);
    [[nodiscard]] ResultCode SeekTo(i64 offset);
    void Reorder(std::size_t index);

    platform::TrackedFile& m_file;
    const std::atomic<i64>* m_dataEnd = nullptr;  // null without buffers
    std::vector<Entry> m_entries;                 // rising by offset, empty ones last
};

}  // namespace k9erepl

#endif  // K9EREPL_MEMORY_READ_CACHE_MANAGER_H
