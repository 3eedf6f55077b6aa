// The block pool; see blocks_pool_manager.h. Called by the engine's block store and by the
// asynchronous writer.
#include "memory/blocks_pool_manager.h"

#include <cassert>
#include <mutex>
#include <new>
#include <utility>

#include "platform/memory.h"
#include "support/log.h"

namespace k9erepl {

CBlocksPoolManager::CBlocksPoolManager(u32 blockSize, u32 freeBlockLimit)
    : m_blockSize(blockSize), m_freeBlockLimit(freeBlockLimit) {}

CBlocksPoolManager::~CBlocksPoolManager() {
    FreeAll();
}

void CBlocksPoolManager::SetMaxBlocks(u32 limit) {
    const std::lock_guard guard(m_lock);
    m_freeBlockLimit = limit;
}

void* CBlocksPoolManager::AllocBlock() {
    if (void* const pooled = TakeFree()) {
        LOG_INFO(kLogStorage, "Memory block allocated from pool");
        return pooled;
    }
    assert(m_blockSize >= sizeof(FreeBlock));
    void* const fresh = platform::AllocMemory(std::size_t{m_blockSize} + m_more);
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
    if (m_free == nullptr) {
        return nullptr;
    }
    --m_freeCount;
    return std::exchange(m_free, m_free->next);
}

void CBlocksPoolManager::ReleaseBlock(void* block) {
    assert(block != nullptr);
    {
        const std::lock_guard guard(m_lock);
        if (m_freeCount < m_freeBlockLimit) {
            m_free = new (block) FreeBlock{m_free};
            ++m_freeCount;
            return;
        }
    }
    platform::FreeMemory(block);
}

void CBlocksPoolManager::FreeAll() {
    while (void* const block = TakeFree()) {
        platform::FreeMemory(block);
    }
}

}  // namespace k9erepl
