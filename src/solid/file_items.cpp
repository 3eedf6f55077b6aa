// Reading items for an enumeration; see the header.
#include "solid/file_items.h"

#include <algorithm>

#include "platform/system_error.h"
#include "solid/file_access.h"
#include "support/log.h"

namespace k9erepl {

using platform::LastSystemError;

FileItems::FileItems(StorageFile& file, LiveFile& live, EnumBuffers& buffers,
                     ReadCacheManager& cache, i64 offset, i64 reachesTo)
    : m_file(file),
      m_live(live),
      m_buffers(buffers),
      m_cache(cache),
      m_offset(offset),
      m_end(file.State().writePos.load(std::memory_order_acquire)),
      m_generation(file.ReadGeneration()),
      m_growth(reachesTo - offset > i64{ReadCacheManager::kBufferSize}
                   ? ReadCacheManager::kBufferSize / kFirstRead
                   : 2) {
    assert(offset >= kFirstCommitOffset);
}

ResultCode FileItems::GetFromFile(u32 size, const u8** bytes) {
    if (i64{size} > Left()) {
        return TooShort(size);
    }
    if (size > ReadCacheManager::kBufferSize) {
        return GetLarge(size, bytes);
    }
    if (ResultCode rc = Fetch(size); rc != RC_OK) {
        return rc;
    }
    *bytes = At(m_offset);
    return RC_OK;
}

ResultCode FileItems::ReachNext(u32 size) {
    const i64 wanted = std::min(i64{size} + kCommitBlockSize + kRecordHeadSize, Left());
    if (wanted > i64{ReadCacheManager::kBufferSize} || Holds(static_cast<u32>(wanted))) {
        return RC_OK;
    }
    return Fetch(static_cast<u32>(wanted));
}

bool FileItems::PeekNext(u32 size, i64* offset, TRecordHead* head) const {
    assert(offset != nullptr && head != nullptr && i64{size} <= Left());
    i64 at = m_offset + i64{size};
    while (at + i64{kRecordHeadSize} <= m_end && HoldsAt(at, kRecordHeadSize)) {
        const u32 signature = LoadUnaligned<u32>(At(at));
        if (signature != kCommitSignature) {
            *offset = at;
            *head = LoadUnaligned<TRecordHead>(At(at));
            return signature == kRecordSignature;
        }
        at += kCommitBlockSize;
    }
    return false;
}

ResultCode FileItems::Fetch(u32 size) {
    assert(size <= ReadCacheManager::kBufferSize);
    if (m_generation != m_file.ReadGeneration()) {
        m_generation = m_file.ReadGeneration();
        m_buffer = ReadBuffer{};
    }
    if (ResultCode rc = m_buffers.GetBuffer(m_cache, m_offset, size, &m_buffer, m_readSize);
        rc != RC_OK) {
        return rc;
    }
    m_readSize = std::min(m_readSize * m_growth, ReadCacheManager::kBufferSize);
    if (ResultCode rc = m_live.CheckEnumerated(); rc != RC_OK) {
        return rc;
    }
    return Holds(size) ? RC_OK : TooShort(size);
}

ResultCode FileItems::GetLarge(u32 size, const u8** bytes) {
    assert(size > ReadCacheManager::kBufferSize);
    m_large.reset();  // before allocating: there may not be memory for two
    m_large = platform::AllocBuffer(size);
    if (m_large == nullptr) {
        return RC_NO_MEMORY;
    }
    if (!m_file.Reader().Seek(m_offset)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                       "Cannot seek to start enum recs;offset %I64d, sys-err %r", m_offset,
                       LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    u32 got = 0;
    const ResultCode rc = ReadWhole(m_file.Reader(), m_large.get(), size, &got);
    if (ResultCode checkRc = m_live.CheckEnumerated(); checkRc != RC_OK) {
        return checkRc;
    }
    if (rc == RC_SHORT_READ) {
        return TooShort(size);
    }
    if (rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to read block;sys-err %r,offset %I64d",
                       LastSystemError(), m_offset);
        return rc;
    }
    *bytes = m_large.get();
    return RC_OK;
}

ResultCode FileItems::TooShort(u32 size) const {
    LOG_ERROR_CODE(RC_FILE_CORRUPT, kLogStorage, "Couldn't read %P bytes at once",
                   std::size_t{size});
    return RC_FILE_CORRUPT;
}

// An index may have led the load past damage that no scan has seen.
ResultCode FileItems::DoesNotRise(i64 rev) const {
    LOG_ERROR_CODE(RC_BAD_DATA, kLogStorage,
                   "Read rec with rev %I64d, but rev before it is %I64d, offset %I64d", rev,
                   m_prevRev, m_offset);
    return RC_BAD_DATA;
}

}  // namespace k9erepl
