// Reads the records that lie packed in a memory block. An enumeration walks through a block with
// it, a flush finds the bytes to write, and a load finds the place where it cuts a block.
#ifndef K9EREPL_ENGINE_BLOCK_RECORDS_H
#define K9EREPL_ENGINE_BLOCK_RECORDS_H

#include <k9erepl/storage.h>

#include <cassert>

#include "format/storage_file_format.h"
#include "memory/repl_block.h"
#include "platform/int_types.h"

namespace k9erepl {

// One record in a block. `rec` points into the block: it is valid until the block is cut, moved or
// released.
struct BlockRecord {
    // The client's record, behind the 8-byte prefix of signature and size. It need not be aligned.
    const K9eReplRec* rec = nullptr;
    // Bytes of the record with its prefix: the step to the next record.
    u32 size = 0;
};

// Reads the record that begins `offset` bytes into the data of `block`. Returns false when there is
// no record: the signature differs, or the size is below that of a record's head, which would stop
// the walk, or would leave the block. *record is then not to be used.
// REQUIRES: offset is below the block's used bytes.
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
