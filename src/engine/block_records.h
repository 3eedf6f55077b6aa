// Reading the records that lie packed in a memory block: enumeration, flushing, loading.
#ifndef K9EREPL_ENGINE_BLOCK_RECORDS_H
#define K9EREPL_ENGINE_BLOCK_RECORDS_H

#include <k9erepl/storage.h>

#include <cassert>

#include "format/storage_file_format.h"
#include "memory/repl_block.h"
#include "platform/int_types.h"

namespace k9erepl {

struct BlockRecord {
    const K9eReplRec* rec = nullptr;
    u32 size = 0;  // with its prefix: the step to the next record
};

// The record at `offset` of the block's data. False when there is none: another signature, or a
// size that would leave the block or stand still.
inline bool ReadBlockRecord(const K9eReplBlock& block, u64 offset, BlockRecord* record) {
    assert(offset < block.used);
    const u8* bytes = block.Data() + offset;
    const u64 left = block.used - offset;
    if (left < kRecordHeadSize || LoadUnaligned<u32>(bytes) != kRecordSignature) {
        return false;
    }
    record->size = LoadUnaligned<u32>(bytes + kSignatureSize);
    record->rec = reinterpret_cast<const K9eReplRec*>(bytes + kRecordPrefixSize);
    return record->size >= kRecordHeadSize && record->size <= left;
}

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_BLOCK_RECORDS_H
