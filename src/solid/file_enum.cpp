// Enumeration of committed records from the file, through the read cache. Reads what the load scan
// accepted, what was written since, and what an index led the load past: a fault here is an error
// of the call.
#include <algorithm>
#include <cassert>
#include <limits>

#include "format/stream_rules.h"
#include "platform/system_error.h"
#include "solid/file_access.h"
#include "solid/solid_storage.h"
#include "support/log.h"

namespace k9erepl {

using platform::LastSystemError;

// Hands out the bytes of the items one after another. A visitor may use the storage meanwhile and
// empty the cache's buffers under this reader; the generation tells.
class CSolidStorage::FileItems {
  public:
    FileItems(CSolidStorage& storage, ReadCacheManager& cache, i64 offset)
        : m_storage(storage),
          m_cache(cache),
          m_offset(offset),
          m_end(storage.m_state.writePos.load(std::memory_order_acquire)),
          m_generation(storage.m_readGeneration) {}

    i64 Offset() const { return m_offset; }
    i64 Left() const { return m_end - m_offset; }
    void Advance(u32 size) { m_offset += size; }
    // RC_BAD_DATA when a record's revision is not above that of the record before it.
    u32 CheckRises(i64 rev);

    // The record behind the one of `size` bytes at the current offset, commit blocks passed over.
    // False when the read buffer does not hold it: it is worth a look, but no read.
    bool PeekNext(u32 size, i64* offset, TRecordHead* head) const;

    // *bytes receives the `size` bytes at the current offset, valid until the next call or the
    // next visit. Errors: RC_FILE_CORRUPT when the file does not give them, and those of reading.
    u32 Get(u32 size, const u8** bytes);

  private:
    bool Holds(u32 size) const { return HoldsAt(m_offset, size); }
    bool HoldsAt(i64 offset, u32 size) const {
        return m_generation == m_storage.m_readGeneration && offset >= m_buffer.offset &&
               offset + i64{size} <= m_buffer.offset + i64{m_buffer.length};
    }
    const u8* At(i64 offset) const { return m_buffer.data + (offset - m_buffer.offset); }
    u32 Fetch(u32 size);
    u32 GetLarge(u32 size, const u8** bytes);
    u32 TooShort(u32 size);

    CSolidStorage& m_storage;
    ReadCacheManager& m_cache;
    i64 m_offset;
    const i64 m_end;
    i64 m_prevRev = std::numeric_limits<i64>::min();
    u64 m_generation;
    ReadBuffer m_buffer;
    platform::MemoryBuffer m_large;  // for a record larger than a read buffer
};

u32 CSolidStorage::FileItems::Get(u32 size, const u8** bytes) {
    if (size > Left()) {
        return TooShort(size);
    }
    if (size > ReadCacheManager::kBufferSize) {
        return GetLarge(size, bytes);
    }
    if (!Holds(size)) {
        if (u32 rc = Fetch(size); rc != RC_OK) {
            return rc;
        }
    }
    *bytes = At(m_offset);
    return RC_OK;
}

bool CSolidStorage::FileItems::PeekNext(u32 size, i64* offset, TRecordHead* head) const {
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

u32 CSolidStorage::FileItems::Fetch(u32 size) {
    if (m_generation != m_storage.m_readGeneration) {
        m_generation = m_storage.m_readGeneration;
        m_buffer = ReadBuffer{};
    }
    if (u32 rc = m_cache.GetBuffer(m_offset, size, &m_buffer); rc != RC_OK) {
        return rc;
    }
    if (u32 rc = m_storage.CheckEnumerated(); rc != RC_OK) {
        return rc;
    }
    return Holds(size) ? RC_OK : TooShort(size);
}

u32 CSolidStorage::FileItems::GetLarge(u32 size, const u8** bytes) {
    m_large.reset();  // first: two of them need not fit the memory
    m_large = platform::AllocBuffer(size);
    if (m_large == nullptr) {
        return RC_NO_MEMORY;
    }
    if (!m_storage.m_file.Seek(m_offset)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                       "Cannot seek to start enum recs;offset %I64d, sys-err %r", m_offset,
                       LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    u32 got = 0;
    const u32 rc = ReadWhole(m_storage.m_file, m_large.get(), size, &got);
    if (u32 checkRc = m_storage.CheckEnumerated(); checkRc != RC_OK) {
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

u32 CSolidStorage::FileItems::TooShort(u32 size) {
    LOG_ERROR_CODE(RC_FILE_CORRUPT, kLogStorage, "Couldn't read %P bytes at once",
                   std::size_t{size});
    return RC_FILE_CORRUPT;
}

// An index may have led the load past damage that no scan has seen.
u32 CSolidStorage::FileItems::CheckRises(i64 rev) {
    if (!Rises(rev, m_prevRev)) {
        LOG_ERROR_CODE(RC_BAD_DATA, kLogStorage,
                       "Read rec with rev %I64d, but rev before it is %I64d, offset %I64d", rev,
                       m_prevRev, m_offset);
        return RC_BAD_DATA;
    }
    m_prevRev = rev;
    return RC_OK;
}

namespace {

// Counts the enumerations that run, also when a visitor throws.
class EnumLevel {
  public:
    explicit EnumLevel(u32& depth) : m_depth(depth) { ++m_depth; }
    ~EnumLevel() { --m_depth; }
    EnumLevel(const EnumLevel&) = delete;
    EnumLevel& operator=(const EnumLevel&) = delete;

  private:
    u32& m_depth;
};

// RC_BAD_DATA for a head that no writer of ours produces or whose record runs past the data.
u32 CheckHead(const TRecordHead& head, i64 offset, i64 left) {
    if (!SizesAgree(head) || i64{head.size} > left) {
        LOG_ERROR_CODE(RC_BAD_DATA, kLogStorage, "Wrong rec size %u, data size %u, offset %I64d",
                       u32{head.size}, u32{head.dataSize}, offset);
        return RC_BAD_DATA;
    }
    return RC_OK;
}

u32 CheckCommitted(i64 rev, i64 lastCommitted) {
    if (rev > lastCommitted) {
        LOG_ERROR_CODE(RC_BAD_DATA, kLogStorage,
                       "Read uncommitted rec with rev %I64d,last committed rev %I64d", rev,
                       lastCommitted);
        return RC_BAD_DATA;
    }
    return RC_OK;
}

}  // namespace

// What the enumeration does with one item.
struct CSolidStorage::FileItem {
    bool isRecord = false;
    bool pastRange = false;  // a record above the range: the enumeration is done
    bool visit = false;
    u32 size = 0;
};

u32 CSolidStorage::LookAtItem(FileItems& items, const FileEnumRange& range, FileItem* item) {
    const u8* bytes = nullptr;
    if (u32 rc = items.Get(kSignatureSize, &bytes); rc != RC_OK) {
        return rc;
    }
    const u32 signature = LoadUnaligned<u32>(bytes);
    if (signature == kCommitSignature) {
        *item = {.visit = range.alsoCommits, .size = kCommitBlockSize};
        return items.Get(kCommitBlockSize, &bytes);
    }
    if (signature != kRecordSignature) {
        LOG_ERROR_CODE(RC_BAD_DATA, kLogStorage, "Wrong signature (0x%8.8X) found, offset %I64d",
                       signature, items.Offset());
        return RC_BAD_DATA;
    }
    if (u32 rc = items.Get(kRecordHeadSize, &bytes); rc != RC_OK) {
        return rc;
    }
    const auto head = LoadUnaligned<TRecordHead>(bytes);
    *item = {.isRecord = true,
             .pastRange = head.rev > range.toRev,
             .visit = head.rev >= range.fromRev,
             .size = head.size};
    if (u32 rc = CheckHead(head, items.Offset(), items.Left()); rc != RC_OK) {
        return rc;
    }
    if (item->pastRange) {
        return CheckRangeEnd(items, range, head);
    }
    if (u32 rc = CheckCommitted(head.rev, m_state.lastFlushedRev); rc != RC_OK) {
        return rc;
    }
    return items.CheckRises(head.rev);
}

// The load has not seen what lies before the place to which an index led it. A revision there that
// damage has made larger must not pass for the end of the range and hide the records behind it.
u32 CSolidStorage::CheckRangeEnd(FileItems& items, const FileEnumRange& range,
                                 const TRecordHead& head) {
    const i64 written = std::max(i64{m_state.lastFlushedRev}, m_lastWrittenRev);
    if (u32 rc = CheckCommitted(head.rev, written); rc != RC_OK) {
        return rc;
    }
    if (items.Offset() < range.reachesTo) {
        LOG_ERROR_CODE(RC_BAD_DATA, kLogStorage,
                       "Read rec with rev %I64d, but revs up to %I64d reach to offset %I64d, "
                       "offset %I64d",
                       i64{head.rev}, range.toRev, range.reachesTo, items.Offset());
        return RC_BAD_DATA;
    }
    i64 nextOffset = 0;
    TRecordHead next{};
    if (items.PeekNext(head.size, &nextOffset, &next) && !Rises(next.rev, head.rev)) {
        LOG_ERROR_CODE(RC_BAD_DATA, kLogStorage,
                       "Read rec with rev %I64d, but rev before it is %I64d, offset %I64d",
                       i64{next.rev}, i64{head.rev}, nextOffset);
        return RC_BAD_DATA;
    }
    return RC_OK;
}

u32 CSolidStorage::VisitItem(FileItems& items, const FileItem& item, FileItemVisitor visitor,
                             void* ctx, bool* completed) {
    const u8* bytes = nullptr;
    if (u32 rc = items.Get(item.size, &bytes); rc != RC_OK) {
        return rc;
    }
    const auto* rec = reinterpret_cast<const K9eReplRec*>(bytes + kRecordPrefixSize);
    const u32 rc = visitor(items.Offset(), item.isRecord ? rec : nullptr, ctx);
    *completed = rc == RC_OK;
    return rc;
}

u32 CSolidStorage::EnumFileRecs(const FileEnumRange& range, FileItemVisitor visitor, void* ctx,
                                bool* completed) {
    assert(visitor != nullptr);
    assert(range.startOffset == 0 || range.startOffset >= kFirstCommitOffset);
    *completed = true;
    if (!IsOpen()) {
        return RC_NO_WRITER;
    }
    const EnumLevel level(m_enumDepth);
    ReadCacheManager* cache = nullptr;
    if (u32 rc = EnumCache(&cache); rc != RC_OK) {
        return rc;
    }
    FileItems items(*this, *cache, range.startOffset == 0 ? kFirstCommitOffset : range.startOffset);
    while (items.Left() > 0) {
        FileItem item;
        if (u32 rc = LookAtItem(items, range, &item); rc != RC_OK || item.pastRange) {
            return rc;
        }
        if (item.visit) {
            if (u32 rc = VisitItem(items, item, visitor, ctx, completed); rc != RC_OK) {
                return rc;
            }
        }
        items.Advance(item.size);
    }
    LOG_INFO(kLogStorage, "Exit Enum");
    return RC_OK;
}

}  // namespace k9erepl
