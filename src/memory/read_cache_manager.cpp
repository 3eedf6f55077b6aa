// The read cache; see read_cache_manager.h. Called by the storage file's enumeration from disk.
#include "memory/read_cache_manager.h"

#include <k9erepl/storage.h>

#include <algorithm>
#include <cassert>
#include <new>
#include <utility>

#include "platform/clock.h"
#include "platform/system_error.h"
#include "support/log.h"
#include "support/params.h"

namespace k9erepl {

namespace {

constexpr i32 kDefaultBuffersCount = 8;
constexpr i32 kMaxBuffersCount = 32;

u32 ReadBuffersCount(const char* connStr, i32* count) {
    *count = kDefaultBuffersCount;
    const bool given = GetParamInt(connStr, "read_buffers_count", count);
    if (*count < 1 || *count > kMaxBuffersCount) {
        LOG_ERROR_CODE(RC_BAD_SIZE, kLogStorage,
                       "Wrong 'read_buffers_count' value (%d); valid range is 1-32", *count);
        return RC_BAD_SIZE;
    }
    LOG_INFO(kLogStorage, "Use %s read_buffers_count %d", given ? "" : "default", *count);
    return RC_OK;
}

// REQUIRES: buffer.offset <= offset.
bool Holds(const ReadBuffer& buffer, i64 offset, u32 size) {
    assert(buffer.offset <= offset);
    return size <= buffer.length && offset - buffer.offset <= buffer.length - size;
}

void MarkEmpty(ReadBuffer& buffer) {
    buffer.offset = ReadBuffer::kNoOffset;
    buffer.length = 0;
}

}  // namespace

ReadCacheManager::ReadCacheManager(platform::TrackedFile& file) : m_file(file) {}

ReadCacheManager::~ReadCacheManager() = default;

ResultCode ReadCacheManager::Init(const char* connStr, const std::atomic<i64>& dataEnd) {
    i32 count = 0;
    if (const ResultCode rc = ReadBuffersCount(connStr, &count); rc != RC_OK) {
        return rc;
    }
    Reset();
    if (!Allocate(static_cast<std::size_t>(count))) {
        Reset();
        LOG_ERROR_CODE(RC_NO_MEMORY, kLogStorage, "Couldn't allocate memory for %d read buffers",
                       count);
        return RC_NO_MEMORY;
    }
    m_dataEnd = &dataEnd;
    return RC_OK;
}

bool ReadCacheManager::Allocate(std::size_t count) {
    const u32 now = platform::TickCountMs();
    try {
        m_entries.resize(count);
    } catch (const std::bad_alloc&) {
        return false;
    }
    for (Entry& entry : m_entries) {
        entry.memory = platform::AllocBuffer(kBufferSize);
        entry.data = entry.memory.get();
        entry.lastUse = now;
        if (entry.data == nullptr) {
            return false;
        }
    }
    return true;
}

void ReadCacheManager::Reset() {
    m_entries.clear();
    m_dataEnd = nullptr;
}

ResultCode ReadCacheManager::GetBuffer(i64 offset, u32 size, ReadBuffer* current, u32 readSize) {
    assert(m_dataEnd != nullptr && !m_entries.empty());
    assert(size <= kBufferSize && readSize <= kBufferSize);
    if (Entry* const hit = FindHit(offset, size)) {
        hit->lastUse = platform::TickCountMs();
        *current = *hit;
        return RC_OK;
    }
    const i64 dataEnd = m_dataEnd->load(std::memory_order_acquire);
    if (offset >= dataEnd) {
        *current = ReadBuffer{offset};
        return RC_OK;
    }
    const u64 available = static_cast<u64>(dataEnd) - static_cast<u64>(offset);
    const auto length = static_cast<u32>(std::min<u64>(available, std::max(size, readSize)));
    return Fill(ChooseVictim(*current), offset, length, current);
}

void ReadCacheManager::Invalidate() {
    for (Entry& entry : m_entries) {
        MarkEmpty(entry);
    }
}

std::size_t ReadCacheManager::LowerBound(i64 offset) const {
    const auto found =
        std::lower_bound(m_entries.begin(), m_entries.end(), offset,
                         [](const Entry& entry, i64 wanted) { return entry.offset < wanted; });
    return static_cast<std::size_t>(found - m_entries.begin());
}

ReadCacheManager::Entry* ReadCacheManager::FindHit(i64 offset, u32 size) {
    const std::size_t index = LowerBound(offset);
    if (index < m_entries.size() && m_entries[index].offset == offset &&
        Holds(m_entries[index], offset, size)) {
        return &m_entries[index];
    }
    if (index > 0 && Holds(m_entries[index - 1], offset, size)) {
        return &m_entries[index - 1];
    }
    return nullptr;
}

std::size_t ReadCacheManager::ChooseVictim(const ReadBuffer& current) const {
    if (current.length != 0) {
        const std::size_t own = LowerBound(current.offset);
        if (own < m_entries.size() && m_entries[own].offset == current.offset) {
            return own;
        }
    }
    if (m_entries.back().length == 0) {
        return m_entries.size() - 1;
    }
    // We compare ages, not tick counts: the tick count wraps.
    const u32 now = platform::TickCountMs();
    const auto oldest = std::max_element(
        m_entries.begin(), m_entries.end(),
        [now](const Entry& a, const Entry& b) { return now - a.lastUse < now - b.lastUse; });
    return static_cast<std::size_t>(oldest - m_entries.begin());
}

ResultCode ReadCacheManager::Fill(std::size_t index, i64 offset, u32 length, ReadBuffer* current) {
    if (const ResultCode rc = SeekTo(offset); rc != RC_OK) {
        return rc;
    }
    Entry& entry = m_entries[index];
    u32 got = 0;
    if (!m_file.Read(entry.memory.get(), length, &got)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Failed to read block;sys-err %r,offset %I64d",
                       platform::LastSystemError(), offset);
        if (got != 0) {
            // The bytes that did come have overwritten what the entry says it holds.
            MarkEmpty(entry);
            Reorder(index);
        }
        return RC_SYSTEM_ERROR;
    }
    entry.offset = offset;
    entry.length = got;
    entry.lastUse = platform::TickCountMs();
    *current = entry;
    Reorder(index);
    return RC_OK;
}

ResultCode ReadCacheManager::SeekTo(i64 offset) {
    if (!m_file.Seek(offset)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                       "Cannot seek to start enum recs;offset %I64d, sys-err %r", offset,
                       platform::LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    return RC_OK;
}

// Moves the entry, whose offset has changed, to its place in the order. Of several entries with the
// same offset the freshest comes first and is the one that a search finds: the others are too
// short.
void ReadCacheManager::Reorder(std::size_t index) {
    const i64 offset = m_entries[index].offset;
    while (index > 0 && m_entries[index - 1].offset >= offset) {
        std::swap(m_entries[index - 1], m_entries[index]);
        --index;
    }
    while (index + 1 < m_entries.size() && m_entries[index + 1].offset < offset) {
        std::swap(m_entries[index], m_entries[index + 1]);
        ++index;
    }
}

}  // namespace k9erepl
