// The two maps of blocks; see the header.
#include "engine/block_store.h"

#include <k9erepl/storage.h>
#include <k9sys/k9sys.h>

#include <algorithm>
#include <cassert>
#include <cstring>
#include <iterator>
#include <new>

#include "engine/block_records.h"
#include "engine/revision.h"
#include "format/storage_file_format.h"
#include "support/log.h"

namespace k9erepl {

namespace {

// A block from the pool may have been used before, so every field of its head must be set; the
// memset ends before flushedEnd.
K9eReplBlock* PrepareBlock(void* memory, std::size_t ordinal) {
    assert(memory != nullptr);
    auto* block = new (memory) K9eReplBlock;
    std::memset(memory, 0, kZeroedHeadSize);
    K9SysSNPrintf(block->name, sizeof(block->name), "eRepl#%u", static_cast<u32>(ordinal));
    block->flushedEnd = 0;
    return block;
}

// True when no record at or above `rev` lies in the block or before it.
bool EndsBelow(const MemoryBlocks::value_type& entry, i64 rev) {
    const auto& [firstRev, block] = entry;
    return block->used == 0 ? firstRev < rev : block->lastRev < rev;
}

ResultCode RefuseSize(u64 need, u64 limit) {
    LOG_ERROR_CODE(RC_INVALID_ARG, kLogStorage,
                   "Rec size with header %I64d exceeds free block size %I64d",
                   static_cast<i64>(need), static_cast<i64>(limit));
    return RC_INVALID_ARG;
}

}  // namespace

void BlockStore::SetUp(u32 blockSize, u32 freeBlocks, u64 maxRecordSize) {
    assert(blockSize > 0 && m_index.empty());
    m_pool.SetBlockSize(blockSize + kBlockOverhead, BlockNotes::MemorySize(blockSize));
    m_pool.SetMaxBlocks(freeBlocks);
    m_capacity = blockSize;
    m_maxRecordSize = maxRecordSize;
}

void BlockStore::Clear() {
    EraseAll();
    m_oldestRev = 0;
    m_flushedRev = 0;
}

void BlockStore::Reset() {
    Clear();
    SetNextRev(1);
    m_beginMoved = false;
}

BlockIndex::const_iterator BlockStore::FindHolding(i64 rev) const {
    assert(!m_index.empty());
    const auto it = m_index.upper_bound(rev);
    return it == m_index.begin() ? it : std::prev(it);
}

std::atomic<i64>* BlockStore::FileOffsetOf(i64 key) {
    const auto entry = m_index.find(key);
    return entry == m_index.end() ? nullptr : &entry->second.fileOffset;
}

void BlockStore::SetOldestRev(i64 rev) {
    m_oldestRev = rev;
    Touch();
}

u64 BlockStore::OffsetFor(K9eReplBlock& block, i64 rev) const {
    BlockNotes notes = NotesOf(block);
    const BlockNote* const note = notes.Find(rev);
    if (note == nullptr) {
        return 0;
    }
    if (NoteHolds(block, *note)) {
        return note->offset;
    }
    notes.Forget();
    return 0;
}

bool BlockStore::NoteHolds(const K9eReplBlock& block, const BlockNote& note) {
    BlockRecord record;
    return note.offset < block.used && ReadBlockRecord(block, note.offset, &record) &&
           record.rec->rev == note.rev;
}

BlockStore::Held BlockStore::FindNewest() {
    if (m_blocks.empty()) {
        return {};
    }
    const auto& [key, block] = *m_blocks.rbegin();
    const auto entry = m_index.find(key);
    return {block, entry == m_index.end() ? nullptr : &entry->second};
}

ResultCode BlockStore::MakeRoom(i64 rev, u64 need, i64 fileOffset) {
    if (need > m_maxRecordSize) {
        return RefuseSize(need, m_maxRecordSize);
    }
    if (m_newest.block != nullptr && m_capacity - m_newest.block->used >= need) {
        NotesOf(*m_newest.block).Add(rev, fileOffset);
        return RC_OK;
    }
    if (ResultCode rc = AddBlock(rev); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to alloc next data block");
        return rc;
    }
    return m_capacity >= need ? RC_OK : RefuseSize(need, m_capacity);
}

ResultCode BlockStore::AddBlock(i64 firstRev) {
    assert(m_index.empty() || m_index.rbegin()->first < firstRev);
    void* memory = m_pool.AllocBlock();
    if (memory == nullptr) {
        return RC_NO_MEMORY;
    }
    const std::size_t ordinal = m_index.size();
    K9eReplBlock* block = PrepareBlock(memory, ordinal);
    NotesOf(*block).Reset();
    try {
        const auto [entry, added] = m_index.try_emplace(firstRev, firstRev, kUnknownOffset, block);
        assert(added);
        try {
            m_blocks.emplace_hint(m_blocks.end(), firstRev, block);
        } catch (...) {
            m_index.erase(entry);
            throw;
        }
    } catch (const std::bad_alloc&) {
        m_pool.ReleaseBlock(memory);
        LOG_ERROR_CODE(RC_NO_MEMORY, kLogStorage, "Failed to add a new block");
        return RC_NO_MEMORY;
    }
    RememberNewest();
    Touch();
    LOG_INFO(kLogStorage, "Add block %P,rev %I64d", ordinal, firstRev);
    return RC_OK;
}

void BlockStore::AddBlockInFile(i64 firstRev, i64 fileOffset) {
    assert(m_blocks.empty() && (m_index.empty() || m_index.rbegin()->first < firstRev));
    m_index.try_emplace(m_index.end(), firstRev, firstRev, fileOffset, nullptr);
}

void BlockStore::DetachFromIndex(i64 key) {
    const auto entry = m_index.find(key);
    if (entry == m_index.end()) {
        return;
    }
    if (entry->second.IsEmptyBlock()) {
        m_index.erase(entry);
    } else {
        entry->second.block = nullptr;
    }
}

ResultCode BlockStore::EraseBlocksAfter(i64 rev) {
    const auto first = m_blocks.upper_bound(rev);
    if (first == m_blocks.end()) {
        return RC_OK;
    }
    Touch();
    for (auto it = first; it != m_blocks.end(); ++it) {
        if (it->second == nullptr) {
            LOG_ERROR_CODE(RC_BAD_DATA, kLogStorage, "Failed to erase block - NULL;block rev %I64d",
                           it->first);
            RememberNewest();
            return RC_BAD_DATA;
        }
        DetachFromIndex(it->first);
        m_pool.ReleaseBlock(it->second);
        // The pool has it back: a second attempt must not return it again.
        it->second = nullptr;
    }
    m_blocks.erase(first, m_blocks.end());
    RememberNewest();
    assert(m_blocks.empty() || m_blocks.rbegin()->first <= rev);
    return RC_OK;
}

void BlockStore::EraseIndexAfter(i64 rev) {
    Touch();
    m_notesInFile.ForgetAbove(rev);
    m_index.erase(m_index.upper_bound(rev), m_index.end());
    RememberNewest();
}

void BlockStore::EraseAll() {
    Touch();
    // Dropped: a key without its block was logged, and nothing more can be done about it.
    (void)EraseBlocksAfter(0);
    m_index.clear();
    m_notesInFile.Clear();
    RememberNewest();
}

void BlockStore::Abandon() {
    Touch();
    struct Abandoned {
        MemoryBlocks blocks;
        BlockIndex index;
    };
    // Never freed, on purpose: another thread may still use it.
    [[maybe_unused]] const auto* const abandoned =
        new Abandoned{std::move(m_blocks), std::move(m_index)};
    m_notesInFile.Clear();
    m_blocks.clear();  // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks)
    m_index.clear();
    RememberNewest();
}

ResultCode BlockStore::Shrink(std::size_t keep, i64 flushedRev) {
    if (m_blocks.size() <= keep) {
        return RC_OK;
    }
    std::size_t toDelete = m_blocks.size() - keep;
    LOG_INFO(kLogStorage, "Before shrink: %P blocks; to del: %P; lastFlushed: %I64d",
             m_blocks.size(), toDelete, flushedRev);
    auto it = m_blocks.begin();
    ResultCode rc = RC_OK;
    for (; it != m_blocks.end() && toDelete > 0; ++it, --toDelete) {
        K9eReplBlock* block = it->second;
        if (block == nullptr) {
            LOG_ERROR_CODE(RC_BAD_DATA, kLogStorage, "NULL block header;block rev %I64d",
                           it->first);
            rc = RC_BAD_DATA;
            break;
        }
        if (it->first > flushedRev || block->lastRev > flushedRev ||
            block->pendingWrites.load(std::memory_order_acquire) > 0) {
            break;
        }
        m_notesInFile.Take(it->first, NotesOf(*block));
        DetachFromIndex(it->first);
        m_pool.ReleaseBlock(block);
    }
    m_blocks.erase(m_blocks.begin(), it);
    RememberNewest();
    Touch();
    assert(m_blocks.size() >= keep);
    if (rc == RC_OK) {
        LOG_INFO(kLogStorage, "Shrank to %P blocks", m_blocks.size());
    }
    return rc;
}

void BlockStore::DropBelow(i64 rev) {
    Touch();
    while (!m_blocks.empty() && EndsBelow(*m_blocks.begin(), rev)) {
        const auto oldest = m_blocks.begin();
        // Blocks that are only in the file are older than any in memory.
        m_index.erase(m_index.begin(), m_index.upper_bound(oldest->first));
        m_pool.ReleaseBlock(oldest->second);
        m_blocks.erase(oldest);
    }
    assert(m_blocks.empty() || !m_index.empty());
    // A block that is only in the file ends where the next one begins.
    while (m_index.size() > 1 && std::next(m_index.begin())->first <= rev) {
        assert(m_index.begin()->second.block == nullptr);
        m_index.erase(m_index.begin());
    }
    m_notesInFile.ForgetBelow(m_index.empty() ? kEndOfRevs : m_index.begin()->first);
    RememberNewest();
}

ResultCode BlockStore::CutAfter(i64 rev) {
    // When nothing was committed, `rev` is 0, which is below every key: then nothing is kept.
    if (ResultCode rc = EraseBlocksAfter(rev); rc != RC_OK) {
        return rc;
    }
    EraseIndexAfter(rev);
    if (m_blocks.empty()) {
        return RC_OK;
    }
    K9eReplBlock& block = Newest();
    u64 kept = 0;
    while (kept < block.used) {
        BlockRecord record;
        if (!ReadBlockRecord(block, kept, &record)) {
            return RC_BAD_DATA;
        }
        if (record.rec->rev > rev) {
            break;
        }
        kept += record.size;
    }
    block.used = kept;
    block.lastRev = rev;
    NotesOf(block).CutTo(kept);
    return RC_OK;
}

ResultCode BlockStore::CutBackTo(i64 rev, u64 used) {
    assert(rev >= 0 && rev < NextRev());
    EraseIndexAfter(rev);
    if (ResultCode rc = EraseBlocksAfter(rev); rc != RC_OK) {
        return rc;
    }
    if (!m_blocks.empty()) {
        K9eReplBlock& newest = Newest();
        assert(used <= newest.used);
        newest.used = used;
        newest.lastRev = rev;
        newest.flushedEnd = std::min(newest.flushedEnd, newest.used);
        NotesOf(newest).CutTo(used);
    }
    return RC_OK;
}

void BlockStore::DropFirst() {
    assert(!m_index.empty());
    Touch();
    const auto entry = m_index.begin();
    if (entry->second.block != nullptr) {
        m_pool.ReleaseBlock(entry->second.block);
        m_blocks.erase(entry->first);
    }
    m_notesInFile.Forget(entry->first);
    m_index.erase(entry);
    RememberNewest();
}

void BlockStore::DropBefore(i64 key, i64 firstRev) {
    assert(m_index.contains(key));
    while (m_index.begin()->first < key ||
           (m_index.size() > 1 && std::next(m_index.begin())->first <= firstRev)) {
        DropFirst();
    }
}

void BlockStore::MoveOffsets(i64 shift) {
    m_notesInFile.Clear();
    for (auto& [firstRev, entry] : m_index) {
        if (entry.fileOffset != kUnknownOffset) {
            entry.fileOffset += shift;
            if (entry.block != nullptr) {
                entry.block->fileBase = entry.fileOffset;
            }
        }
    }
}

void BlockStore::ForgetEverything() {
    EraseAll();
    m_oldestRev = NextRev() - 1;
    m_beginMoved = false;
}

void BlockStore::RekeyFirst(i64 key, i64 firstRev, i64 fileOffset, u64 cutBytes) {
    assert(!m_index.empty());
    Touch();
    const i64 oldKey = m_index.begin()->first;
    m_notesInFile.Forget(oldKey);
    m_notesInFile.Forget(key);
    auto entry = m_index.extract(m_index.begin());
    assert(key <= firstRev && fileOffset >= kFirstItemOffset);
    assert(m_index.empty() || key < m_index.begin()->first);
    entry.key() = key;
    entry.mapped().firstRev = firstRev;
    const i64 oldOffset = entry.mapped().fileOffset.exchange(fileOffset);
    m_index.insert(std::move(entry));

    auto block = m_blocks.extract(oldKey);
    if (block.empty()) {
        RememberNewest();
        return;
    }
    K9eReplBlock& cut = *block.mapped();
    if (oldKey < key) {
        assert(cutBytes <= cut.used);
        std::memmove(cut.Data(), cut.Data() + cutBytes,
                     static_cast<std::size_t>(cut.used - cutBytes));
        cut.used -= cutBytes;
        cut.flushedEnd -= std::min(cut.flushedEnd, cutBytes);
    }
    BlockNotes notes = NotesOf(cut);
    if (oldOffset == kUnknownOffset) {
        notes.Undone(0);
    }
    notes.CutFront(oldKey < key ? cutBytes : 0, fileOffset, fileOffset - oldOffset);
    block.key() = key;
    m_blocks.insert(std::move(block));
    RememberNewest();
}

}  // namespace k9erepl
