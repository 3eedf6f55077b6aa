// What the storage file's reading operations share: the tracked file pointer, and the read buffers
// of enumerations that run inside each other's visits.
#include <cassert>
#include <new>

#include "platform/system_error.h"
#include "solid/file_access.h"
#include "solid/solid_storage.h"
#include "support/log.h"

namespace k9erepl {

u32 CSolidStorage::ReadAt(i64 offset, void* buffer, u32 size) {
    if (u32 rc = SeekTo(m_file, offset); rc != RC_OK) {
        return rc;
    }
    u32 got = 0;
    const u32 rc = ReadWhole(m_file, buffer, size, &got);
    if (rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to read block;sys-err %r,offset %I64d",
                       platform::LastSystemError(), offset);
    }
    return rc;
}

void CSolidStorage::InvalidateReads() {
    m_readCache.Invalidate();
    for (const auto& cache : m_nestedCaches) {
        cache->Invalidate();
    }
    ++m_readGeneration;
}

u32 CSolidStorage::EnumCache(ReadCacheManager** cache) {
    assert(m_enumDepth > 0);
    if (m_enumDepth == 1) {
        *cache = &m_readCache;
        return RC_OK;
    }
    const std::size_t index = m_enumDepth - 2;
    assert(index <= m_nestedCaches.size());
    if (index == m_nestedCaches.size()) {
        if (u32 rc = AddNestedCache(); rc != RC_OK) {
            return rc;
        }
    }
    *cache = m_nestedCaches[index].get();
    return RC_OK;
}

u32 CSolidStorage::AddNestedCache() {
    try {
        auto cache = std::make_unique<ReadCacheManager>(m_file);
        if (u32 rc = cache->Init("read_buffers_count=1", m_state.writePos); rc != RC_OK) {
            return rc;
        }
        m_nestedCaches.push_back(std::move(cache));
        return RC_OK;
    } catch (const std::bad_alloc&) {
        return RC_NO_MEMORY;
    }
}

}  // namespace k9erepl
