// Fills the image of the index file and keeps its order, count and checksum.
#include "index/index_image.h"

#include <k9erepl/storage.h>

#include <algorithm>
#include <cassert>
#include <cstring>
#include <iterator>
#include <utility>

#include "support/storage_exception.h"

namespace k9erepl {

namespace {

constexpr u32 kHeaderSize = sizeof(TIndexHeader);
constexpr u32 kEntrySize = sizeof(TIndexEntry);
constexpr u64 kMaxSize = kHeaderSize + u64{kMaxIndexEntries} * kEntrySize;

static_assert(kMaxSize <= 0xFFFFFFFF);

i64 OffsetOf(const IndexEntry& entry) {
    return entry.fileOffset.load(std::memory_order_acquire);
}

}  // namespace

IndexImage::IndexImage(u32 blockSize, u32 maxEntries)
    : m_blockSize(blockSize),
      m_maxEntries(maxEntries),
      m_small(platform::AllocBuffer(kSmallSize)),
      m_bytes(m_small.get()) {
    assert(maxEntries > 0 && maxEntries <= kMaxIndexEntries);
    if (m_small == nullptr) {
        throw K9eStorageException(RC_NO_MEMORY);
    }
    Reset();
}

IndexUpdate IndexImage::Update(const BlockIndex& blockIndex) {
    const auto lastSaved = FindLastSaved(blockIndex);
    const bool hasLastSaved = lastSaved != blockIndex.end();
    const bool mustWrite = m_fileUnknown || (m_saved.count != 0 && !hasLastSaved);
    if (hasLastSaved) {
        BeginTail();
    } else {
        BeginWhole();
    }
    if (!TakeIn(hasLastSaved ? lastSaved : blockIndex.begin(), blockIndex.end())) {
        StartOver();
        return IndexUpdate::kNoMemory;
    }
    const bool isSame = hasLastSaved ? LastEntry().rev == m_saved.last.rev : !HasEntries();
    return isSame && !mustWrite ? IndexUpdate::kUnchanged : IndexUpdate::kChanged;
}

u32 IndexImage::TailOffset() const {
    assert(!m_isWhole);
    return kHeaderSize + (m_saved.count - 1) * kEntrySize;
}

void IndexImage::MarkSaved() {
    m_saved.count = m_header.count;
    m_saved.checksum = m_header.checksum;
    m_saved.last = HasEntries() ? LastEntry() : TIndexEntry{};
    m_fileUnknown = false;
    FreeLargeBuffer();
}

void IndexImage::StartOver() {
    Reset();
    m_fileUnknown = true;
}

void IndexImage::Reset() {
    m_saved = {};
    m_fileUnknown = false;
    FreeLargeBuffer();
    BeginWhole();
    Seal();
}

// Returns the end when nothing is saved, or when the last saved block is no longer as it was saved.
BlockIndex::const_iterator IndexImage::FindLastSaved(const BlockIndex& blockIndex) const {
    if (m_saved.count == 0) {
        return blockIndex.end();
    }
    const auto behind = blockIndex.upper_bound(m_saved.last.rev);
    if (behind == blockIndex.begin()) {
        return blockIndex.end();
    }
    const auto found = std::prev(behind);
    const bool isSame = !found->second.IsEmptyBlock() &&
                        found->second.firstRev == m_saved.last.rev &&
                        OffsetOf(found->second) == m_saved.last.offset;
    return isSame ? found : blockIndex.end();
}

void IndexImage::BeginWhole() {
    m_header = {};
    std::memcpy(m_header.magic, kIndexMagic, kIndexMagicSize);
    m_header.version = kIndexVersion;
    m_header.blockSize = m_blockSize;
    m_size = kHeaderSize;
    m_isWhole = true;
}

// Takes the last saved entry out of the count: it is the first one that TakeIn adds again.
void IndexImage::BeginTail() {
    m_header.count = m_saved.count;
    m_header.checksum = m_saved.checksum;
    CountOut(m_saved.last);
    m_size = kHeaderSize;
    m_isWhole = false;
}

// Returns false when memory ran out.
bool IndexImage::TakeIn(BlockIndex::const_iterator from, BlockIndex::const_iterator end) {
    for (; from != end; ++from) {
        const IndexEntry& block = from->second;
        if (block.IsEmptyBlock()) {
            continue;
        }
        const i64 offset = OffsetOf(block);
        if (offset < 0 || (m_header.count == m_maxEntries && offset != LastEntry().offset)) {
            break;
        }
        if (block.firstRev > 0 && !Append({block.firstRev, offset})) {
            return false;
        }
    }
    Seal();
    return true;
}

// Keeps the offsets rising strictly. Returns false when memory ran out.
bool IndexImage::Append(const TIndexEntry& entry) {
    if (HasEntries()) {
        const TIndexEntry last = LastEntry();
        if (entry.offset < last.offset) {
            return true;
        }
        if (entry.offset == last.offset) {
            CountOut(last);
            m_size -= kEntrySize;
        }
    }
    if (m_capacity - m_size < kEntrySize && !Grow()) {
        return false;
    }
    std::memcpy(m_bytes + m_size, &entry, kEntrySize);
    m_size += kEntrySize;
    CountIn(entry);
    return true;
}

void IndexImage::CountIn(const TIndexEntry& entry) {
    m_header.count += 1;
    m_header.checksum ^= IndexEntryChecksum(entry.rev, entry.offset);
}

void IndexImage::CountOut(const TIndexEntry& entry) {
    m_header.count -= 1;
    m_header.checksum ^= IndexEntryChecksum(entry.rev, entry.offset);
}

void IndexImage::Seal() {
    std::memcpy(m_bytes, &m_header, kHeaderSize);
}

bool IndexImage::Grow() {
    const u32 capacity = static_cast<u32>(std::min(u64{m_capacity} * 2, kMaxSize));
    platform::MemoryBuffer larger = platform::AllocBuffer(capacity);
    if (larger == nullptr) {
        return false;
    }
    std::memcpy(larger.get(), m_bytes, m_size);
    m_large = std::move(larger);
    m_bytes = m_large.get();
    m_capacity = capacity;
    return true;
}

// Goes back to the small buffer; the entries in the image are lost.
void IndexImage::FreeLargeBuffer() {
    m_bytes = m_small.get();
    m_capacity = kSmallSize;
    m_size = kHeaderSize;
    m_large.reset();
}

TIndexEntry IndexImage::LastEntry() const {
    assert(HasEntries());
    TIndexEntry entry;
    std::memcpy(&entry, m_bytes + m_size - kEntrySize, kEntrySize);
    return entry;
}

}  // namespace k9erepl
