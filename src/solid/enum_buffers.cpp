// Read buffers by level; see the header.
#include "solid/enum_buffers.h"

#include <cassert>
#include <new>
#include <utility>

namespace k9erepl {

ResultCode EnumBuffers::Init(const char* connStr) {
    assert(m_nested.empty());
    return m_first.Init(connStr, m_file.State().writePos);
}

void EnumBuffers::Reset() {
    m_first.Reset();
    m_nested.clear();
}

ResultCode EnumBuffers::OfLevel(u32 level, ReadCacheManager** cache) {
    assert(level > 0 && cache != nullptr);
    if (level == 1) {
        *cache = &m_first;
        return RC_OK;
    }
    const std::size_t index = level - 2;
    assert(index <= m_nested.size());
    if (index == m_nested.size()) {
        if (ResultCode rc = AddNested(); rc != RC_OK) {
            return rc;
        }
    }
    *cache = m_nested[index].get();
    return RC_OK;
}

ResultCode EnumBuffers::AddNested() {
    try {
        auto cache = std::make_unique<ReadCacheManager>(m_file.Reader());
        if (ResultCode rc = cache->Init("read_buffers_count=1", m_file.State().writePos);
            rc != RC_OK) {
            return rc;
        }
        m_nested.push_back(std::move(cache));
        return RC_OK;
    } catch (const std::bad_alloc&) {
        return RC_NO_MEMORY;
    }
}

ResultCode EnumBuffers::GetBuffer(ReadCacheManager& cache, i64 offset, u32 size,
                                  ReadBuffer* current, u32 readSize) {
    assert(size <= ReadCacheManager::kBufferSize);
    if (m_generation != m_file.ReadGeneration()) {
        Invalidate();
    }
    return cache.GetBuffer(offset, size, current, readSize);
}

void EnumBuffers::Invalidate() {
    m_first.Invalidate();
    for (const auto& cache : m_nested) {
        cache->Invalidate();
    }
    m_generation = m_file.ReadGeneration();
}

}  // namespace k9erepl
