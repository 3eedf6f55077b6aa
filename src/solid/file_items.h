// The items of the storage file one after another, as an enumeration walks them through its read
// buffers.
#ifndef K9EREPL_SOLID_FILE_ITEMS_H
#define K9EREPL_SOLID_FILE_ITEMS_H

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

namespace k9erepl {

// Reads up to the end of the data as it was at the beginning. A visitor may use the storage
// meanwhile and empty the buffers under this reader; the file's read generation tells.
class FileItems {
  public:
    // `cache` is one of `buffers`; an item begins at `offset`.
    FileItems(StorageFile& file, LiveFile& live, EnumBuffers& buffers, ReadCacheManager& cache,
              i64 offset);

    i64 Offset() const { return m_offset; }
    i64 Left() const { return m_end - m_offset; }
    void Advance(u32 size) { m_offset += size; }

    // *bytes receives the `size` bytes at the current offset, valid until the next call or the
    // next visit. Errors: RC_FILE_CORRUPT when the file does not give them, and those of reading.
    [[nodiscard]] u32 Get(u32 size, const u8** bytes) {
        if (i64{size} <= Left() && Holds(size)) [[likely]] {
            *bytes = At(m_offset);
            return RC_OK;
        }
        return GetFromFile(size, bytes);
    }

    // RC_BAD_DATA when a record's revision is not above that of the record before it.
    [[nodiscard]] u32 CheckRises(i64 rev) {
        if (!Rises(rev, m_prevRev)) [[unlikely]] {
            return DoesNotRise(rev);
        }
        m_prevRev = rev;
        return RC_OK;
    }

    // The record behind the one of `size` bytes at the current offset, commit blocks passed over.
    // False when the read buffer does not hold it: it is worth a look, but no read.
    bool PeekNext(u32 size, i64* offset, TRecordHead* head) const;

  private:
    bool Holds(u32 size) const { return HoldsAt(m_offset, size); }
    bool HoldsAt(i64 offset, u32 size) const {
        return m_generation == m_file.ReadGeneration() && offset >= m_buffer.offset &&
               offset + i64{size} <= m_buffer.offset + i64{m_buffer.length};
    }
    const u8* At(i64 offset) const {
        assert(offset >= m_buffer.offset);
        return m_buffer.data + (offset - m_buffer.offset);
    }
    [[nodiscard]] u32 GetFromFile(u32 size, const u8** bytes);
    [[nodiscard]] u32 Fetch(u32 size);
    [[nodiscard]] u32 GetLarge(u32 size, const u8** bytes);
    [[nodiscard]] u32 TooShort(u32 size) const;
    [[nodiscard]] u32 DoesNotRise(i64 rev) const;

    StorageFile& m_file;
    LiveFile& m_live;
    EnumBuffers& m_buffers;
    ReadCacheManager& m_cache;
    i64 m_offset;                                     // of the item being looked at
    const i64 m_end;                                  // behind the last item
    i64 m_prevRev = std::numeric_limits<i64>::min();  // of the record before; the lowest: none
    u64 m_generation;                                 // the file's, when m_buffer was filled
    ReadBuffer m_buffer;
    platform::MemoryBuffer m_large;  // for a record larger than a read buffer
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_FILE_ITEMS_H
