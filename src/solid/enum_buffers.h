// The read buffers of the enumerations that run on the storage file. A visitor may enumerate, too,
// so each level of nesting has buffers of its own: the record that an outer visitor holds stays as
// it is. RecordEnum owns them.
#ifndef K9EREPL_SOLID_ENUM_BUFFERS_H
#define K9EREPL_SOLID_ENUM_BUFFERS_H

#include <memory>
#include <vector>

#include "memory/read_cache_manager.h"
#include "platform/int_types.h"
#include "solid/storage_file.h"
#include "support/result.h"

namespace k9erepl {

// A buffer has 2 MiB. The first level has as many as the setting read_buffers_count says, each
// further level has one. Guarded by the storage's lock; `file` outlives this object.
class EnumBuffers {
  public:
    explicit EnumBuffers(StorageFile& file) : m_file(file), m_first(file.Reader()) {}
    EnumBuffers(const EnumBuffers&) = delete;
    EnumBuffers& operator=(const EnumBuffers&) = delete;

    // Allocates the buffers of the first level, as the setting read_buffers_count says.
    // Errors: RC_BAD_SIZE for a refused count, RC_NO_MEMORY.
    // May throw std::bad_alloc.
    [[nodiscard]] ResultCode Init(const char* connStr);
    // Frees all buffers. REQUIRES: no enumeration runs.
    void Reset();

    // *cache receives the buffers for the enumeration number `level` of those that run inside one
    // another; 1 is the outermost. They stay until Reset.
    // Errors: RC_NO_MEMORY.
    // REQUIRES: Init has succeeded; the levels above have theirs.
    [[nodiscard]] ResultCode OfLevel(u32 level, ReadCacheManager** cache);

    // Does what ReadCacheManager::GetBuffer does, but never gives bytes that were read before the
    // file changed. `cache` is one that OfLevel gave.
    [[nodiscard]] ResultCode GetBuffer(ReadCacheManager& cache, i64 offset, u32 size,
                                       ReadBuffer* current, u32 readSize);

  private:
    // Makes the buffer of the next level. Errors: RC_NO_MEMORY.
    [[nodiscard]] ResultCode AddNested();
    // Marks the buffers of all levels empty.
    void Invalidate();

    StorageFile& m_file;
    // Of level 1.
    ReadCacheManager m_first;
    std::vector<std::unique_ptr<ReadCacheManager>> m_nested;  // of levels 2, 3, ...
    // The file's read generation when the buffers were last known to hold its bytes.
    u64 m_generation = 0;
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_ENUM_BUFFERS_H
