// The block pool; see blocks_pool_manager.h. Called by the engine's block list and by the
// asynchronous writer.
#include "memory/blocks_pool_manager.h"

#include <cassert>
#include <mutex>
#include <new>
#include <stdexcept>

#include "platform/memory.h"
#include "support/log.h"

namespace k9erepl {

CBlocksPoolManager::CBlocksPoolManager(u32 blockSize, u32 freeBlockLimit)
    : m_blockSize(blockSize), m_freeBlockLimit(freeBlockLimit) {
    m_free.reserve(freeBlockLimit);
}

CBlocksPoolManager::~CBlocksPoolManager() {
    FreeAll();
}

bool CBlocksPoolManager::SetMaxBlocks(u32 limit) {
    const std::lock_guard guard(m_lock);
    try {
        m_free.reserve(limit);
    } catch (const std::bad_alloc&) {
        return false;
    } catch (const std::length_error&) {
        return false;
    }
    m_freeBlockLimit = limit;
    return true;
}

void* CBlocksPoolManager::AllocBlock() {
    if (void* const pooled = TakeFree()) {
        LOG_INFO(kLogStorage, "Memory block allocated from pool");
        return pooled;
    }
    void* const fresh = platform::AllocMemory(m_blockSize);
    if (fresh == nullptr) {
        LOG_ERROR(kLogStorage, "Couldn't allocate memory for next block;block_size %u",
                  m_blockSize);
        return nullptr;
    }
    LOG_INFO(kLogStorage, "Memory block allocated from heap");
    return fresh;
}

void* CBlocksPoolManager::TakeFree() {
    const std::lock_guard guard(m_lock);
    if (m_free.empty()) {
        return nullptr;
    }
    void* const block = m_free.back();
    m_free.pop_back();
    return block;
}

void CBlocksPoolManager::ReleaseBlock(void* block) {
    assert(block != nullptr);
    {
        const std::lock_guard guard(m_lock);
        if (m_free.size() < m_freeBlockLimit) {
            m_free.push_back(block);
            return;
        }
    }
    platform::FreeMemory(block);
}

void CBlocksPoolManager::FreeAll() {
    const std::lock_guard guard(m_lock);
    for (void* const block : m_free) {
        platform::FreeMemory(block);
    }
    m_free.clear();
}

}  // namespace k9erepl
