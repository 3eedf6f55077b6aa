// The read buffers of the enumerations that run on the storage file. Each level has its own: the
// record that a visitor holds stays as it is while the visitor enumerates.
#ifndef K9EREPL_SOLID_ENUM_BUFFERS_H
#define K9EREPL_SOLID_ENUM_BUFFERS_H

#include <memory>
#include <vector>

#include "memory/read_cache_manager.h"
#include "platform/int_types.h"
#include "solid/storage_file.h"

namespace k9erepl {

class EnumBuffers {
  public:
    explicit EnumBuffers(StorageFile& file) : m_file(file), m_first(file.Reader()) {}
    EnumBuffers(const EnumBuffers&) = delete;
    EnumBuffers& operator=(const EnumBuffers&) = delete;

    // Allocates the buffers of the first level, as the setting read_buffers_count says.
    // Errors: RC_BAD_SIZE for a refused count, RC_NO_MEMORY. May throw std::bad_alloc.
    [[nodiscard]] u32 Init(const char* connStr);
    // Frees all buffers. REQUIRES: no enumeration runs.
    void Reset();

    // *cache receives the buffers of the `level`-th of the enumerations that run inside one
    // another, 1 for the outermost; they stay until Reset. RC_NO_MEMORY. REQUIRES: Init has
    // succeeded; the levels above have theirs.
    [[nodiscard]] u32 OfLevel(u32 level, ReadCacheManager** cache);

    // As ReadCacheManager::GetBuffer, never with bytes that were read before the file changed.
    // `cache` is one that OfLevel gave.
    [[nodiscard]] u32 GetBuffer(ReadCacheManager& cache, i64 offset, u32 size, ReadBuffer* current);

  private:
    [[nodiscard]] u32 AddNested();
    void Invalidate();

    StorageFile& m_file;
    ReadCacheManager m_first;
    std::vector<std::unique_ptr<ReadCacheManager>> m_nested;  // of levels 2, 3, ...
    u64 m_generation = 0;  // the file's read generation whose bytes the buffers hold
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_ENUM_BUFFERS_H
