// Places records into the newest memory block. Insert and InsertP use it for new records, the
// loading pass for those it reads back.
#ifndef K9EREPL_ENGINE_BLOCK_INSERTER_H
#define K9EREPL_ENGINE_BLOCK_INSERTER_H

#include <k9erepl/storage.h>

#include <limits>

#include "engine/block_list.h"
#include "platform/int_types.h"

namespace k9erepl {

struct BlockInserter {
    BlockList* blocks = nullptr;
    u32 capacity = 0;  // block_size: bytes of a block's data area
    // The largest record, its head included, that can be read back; smaller than a block may be.
    u64 maxRecordSize = std::numeric_limits<u64>::max();
    u64* dataCounter = nullptr;  // grows by each record's size; may be null

    // Copies `rec` behind its head into the newest block, or into a new one when it does not fit.
    // `fileOffset` is where the record lies in the file, kUnknownOffset for a new record.
    // Errors: RC_NO_MEMORY; RC_INVALID_ARG for a record that fits no block, which leaves an empty
    // block behind.
    u32 Place(const K9eReplRec& rec, i64 fileOffset) const;

  private:
    u32 FindRoom(i64 rev, u64 need, K9eReplBlock** room) const;
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_BLOCK_INSERTER_H
