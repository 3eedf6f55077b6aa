// Placing records into blocks; see the header.
#include "engine/block_inserter.h"

#include <cstring>

#include "solid/file_format.h"
#include "support/log.h"

namespace k9erepl {

namespace {

u32 RefuseSize(u64 need, u64 limit) {
    LOG_ERROR_CODE(RC_INVALID_ARG, kLogStorage,
                   "Rec size with header %I64d exceeds free block size %I64d",
                   static_cast<i64>(need), static_cast<i64>(limit));
    return RC_INVALID_ARG;
}

void Append(K9eReplBlock& block, const K9eReplRec& rec, u64 need) {
    u8* to = block.Data() + block.used;
    const u32 prefix[2] = {kRecordSignature, static_cast<u32>(need)};
    std::memcpy(to, prefix, kRecordPrefixSize);
    std::memcpy(to + kRecordPrefixSize, &rec, static_cast<std::size_t>(need - kRecordPrefixSize));
    block.used += need;
    block.lastRev = rec.rev;
}

}  // namespace

u32 BlockInserter::FindRoom(i64 rev, u64 need, K9eReplBlock** room) const {
    if (!blocks->Blocks().empty()) {
        *room = &blocks->Newest();
        if (capacity - (*room)->used >= need) {
            return RC_OK;
        }
    }
    if (u32 rc = blocks->AddBlock(rev); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to alloc next data block");
        return rc;
    }
    *room = &blocks->Newest();
    return capacity >= need ? RC_OK : RefuseSize(need, capacity);
}

u32 BlockInserter::Place(const K9eReplRec& rec, i64 fileOffset) const {
    const u64 need = u64{rec.dataSize} + kRecordHeadSize;
    if (need > maxRecordSize) {
        return RefuseSize(need, maxRecordSize);
    }
    K9eReplBlock* block = nullptr;
    if (u32 rc = FindRoom(rec.rev, need, &block); rc != RC_OK) {
        return rc;
    }
    IndexEntry& entry = blocks->Index().rbegin()->second;
    if (block->used == 0) {
        // A record that did not fit may have left the block behind, under its own revision.
        entry.firstRev = rec.rev;
    }
    Append(*block, rec, need);
    if (fileOffset != kUnknownOffset && entry.fileOffset == kUnknownOffset) {
        entry.fileOffset = fileOffset;
    }
    if (dataCounter != nullptr) {
        *dataCounter += need;
    }
    return RC_OK;
}

}  // namespace k9erepl
