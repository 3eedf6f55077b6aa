// Decides which bytes a flush takes from one memory block. The flusher asks for each block and
// writes what it gets.
#ifndef K9EREPL_ENGINE_FLUSH_RUN_H
#define K9EREPL_ENGINE_FLUSH_RUN_H

#include "memory/repl_block.h"
#include "platform/int_types.h"
#include "support/result.h"

namespace k9erepl {

// Bytes [begin, end) of a block's data: whole records, which follow one another in the file, too.
// Empty when begin equals end.
struct FlushRun {
    u64 begin = 0;  // bytes from the start of the block's data
    u64 end = 0;    // exclusive; at most the block's used bytes
    // The revision of the run's last record; 0 when the run is empty.
    i64 lastRev = 0;
    // The run ends with the record `limit` and with the block's last byte, so the commit block can
    // be built right behind it, in the space that every block keeps for it.
    bool closes = false;
    // The block holds records above the limit, so no later block has anything to flush.
    bool reachedLimit = false;

    bool IsEmpty() const { return begin == end; }
};

// *run receives the records of `block` that are not in the file yet and not above `limit`.
// `flushedRev` is the highest revision in the file. Errors, logged: RC_BAD_DATA for a block that
// does not hold whole records. Called under the storage's lock.
[[nodiscard]] ResultCode FindFlushRun(const K9eReplBlock& block, i64 flushedRev, i64 limit,
                                      FlushRun* run);

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_FLUSH_RUN_H
