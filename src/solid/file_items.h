// Hands out the items of the storage file one after another, as an enumeration walks them through
// its read buffers. RecordEnum makes one for each enumeration.
#ifndef K9EREPL_SOLID_FILE_ITEMS_H
#define K9EREPL_SOLID_FILE_ITEMS_H

#include <algorithm>
#include <cassert>
#include <limits>

#include "format/storage_file_format.h"
#include "format/stream_rules.h"
#include "memory/read_cache_manager.h"
#include "platform/int_types.h"
#include "platform/memory.h"
#include "solid/enum_buffers.h"
#include "solid/live_file.h"
#include "solid/storage_file.h"
#include "support/result.h"

namespace k9erepl {

// Reads up to the end of the data as it was at the beginning. A visitor may use the storage
// meanwhile and empty the buffers that this reader uses; the file's read generation tells when that
// happened.
class FileItems {
  public:
    // Bytes of the first read, for a range may end soon; each further read doubles, up to a whole
    // buffer.
    static constexpr u32 kFirstRead = 32 * 1024;

    // `cache` is one of `buffers`. An item begins at the file offset `offset`. The reader will go
    // on at least up to the file offset `reachesTo`, as far as the caller knows; 0: nothing is
    // known. If that is further than a read buffer, the second read fills one. All other arguments
    // outlive this object.
    FileItems(StorageFile& file, LiveFile& live, EnumBuffers& buffers, ReadCacheManager& cache,
              i64 offset, i64 reachesTo);

    // The file offset of the item being looked at.
    i64 Offset() const { return m_offset; }
    // Bytes from there to the end of the data; 0 or less at the end.
    i64 Left() const { return m_end - m_offset; }
    // Goes on to the next item; `size` is that of the present one.
    void Advance(u32 size) { m_offset += size; }

    // *bytes receives the `size` bytes at the current offset, valid until the next call or the next
    // visit.
    // Errors, logged: RC_FILE_CORRUPT when the file does not give them, RC_NO_MEMORY, and those of
    // reading.
    [[nodiscard]] ResultCode Get(u32 size, const u8** bytes) {
        if (i64{size} <= Left() && Holds(size)) [[likely]] {
            *bytes = At(m_offset);
            return RC_OK;
        }
        return GetFromFile(size, bytes);
    }

    // *bytes receives the bytes at the current offset that are there without reading, as far as the
    // data goes. Returns their number; 0: none are, and *bytes is unchanged. They stay valid while
    // HoldsStill() says so, and until the next Get.
    u32 Held(const u8** bytes) const {
        if (!Holds(0)) {
            return 0;
        }
        *bytes = At(m_offset);
        const i64 end = std::min(m_end, m_buffer.offset + i64{m_buffer.length});
        return static_cast<u32>(std::max<i64>(end - m_offset, 0));
    }
    // To be called after a visit: false when the visitor has made the bytes in the buffer invalid.
    bool HoldsStill() const { return m_generation == m_file.ReadGeneration(); }

    // To be called for each record that is taken. False, with nothing changed, when its revision is
    // not above that of the record before it.
    bool TakeRising(i64 rev) {
        if (!Rises(rev, m_prevRev)) [[unlikely]] {
            return false;
        }
        m_prevRev = rev;
        return true;
    }
    // Does the same. Errors, logged: RC_BAD_DATA instead of false.
    [[nodiscard]] ResultCode CheckRises(i64 rev) {
        return TakeRising(rev) ? ResultCode{RC_OK} : DoesNotRise(rev);
    }

    // Tries to have the record behind the one of `size` bytes at the current offset in the read
    // buffer, for PeekNext. Reads only if the present buffer, which may be a small first read, ends
    // before it. Errors, logged: those of reading.
    [[nodiscard]] ResultCode ReachNext(u32 size);
    // *offset and *head receive the record behind the one of `size` bytes at the current offset;
    // commit blocks are passed over. False when the read buffer does not hold it, or when it is no
    // record.
    bool PeekNext(u32 size, i64* offset, TRecordHead* head) const;

  private:
    // True when the buffer has `size` bytes at an offset, and the file has not changed since.
    bool Holds(u32 size) const { return HoldsAt(m_offset, size); }
    bool HoldsAt(i64 offset, u32 size) const {
        return HoldsStill() && offset >= m_buffer.offset &&
               offset + i64{size} <= m_buffer.offset + i64{m_buffer.length};
    }
    // REQUIRES: the buffer holds `offset`.
    const u8* At(i64 offset) const {
        assert(offset >= m_buffer.offset);
        return m_buffer.data + (offset - m_buffer.offset);
    }
    // The rest of Get: makes the bytes available by reading.
    [[nodiscard]] ResultCode GetFromFile(u32 size, const u8** bytes);
    // Gets a buffer that holds `size` bytes at the current offset.
    // REQUIRES: size is at most that of a read buffer.
    [[nodiscard]] ResultCode Fetch(u32 size);
    // Reads an item that is larger than a read buffer into a buffer of its own.
    [[nodiscard]] ResultCode GetLarge(u32 size, const u8** bytes);
    // Both log and return the code: RC_FILE_CORRUPT; RC_BAD_DATA.
    [[nodiscard]] ResultCode TooShort(u32 size) const;
    [[nodiscard]] ResultCode DoesNotRise(i64 rev) const;

    StorageFile& m_file;
    LiveFile& m_live;
    EnumBuffers& m_buffers;
    ReadCacheManager& m_cache;
    // See Offset().
    i64 m_offset;
    // The file offset behind the last item: the write position when this object was made.
    const i64 m_end;
    // The revision of the record before; the lowest number: there was none.
    i64 m_prevRev = std::numeric_limits<i64>::min();
    // The file's read generation when m_buffer was filled.
    u64 m_generation;
    // Bytes of the next read, at most a read buffer.
    u32 m_readSize = kFirstRead;
    // The factor by which the next read is larger than the one before it.
    const u32 m_growth;
    // The piece of the file being walked; empty at first.
    ReadBuffer m_buffer;
    platform::MemoryBuffer m_large;  // of GetLarge; null until it is needed
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_FILE_ITEMS_H
