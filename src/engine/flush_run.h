// The bytes that a flush takes from one memory block: decided here, written by the flusher.
#ifndef K9EREPL_ENGINE_FLUSH_RUN_H
#define K9EREPL_ENGINE_FLUSH_RUN_H

#include "memory/repl_block.h"
#include "platform/int_types.h"

namespace k9erepl {

// Bytes [begin, end) of a block's data, whole records; empty when begin equals end.
struct FlushRun {
    u64 begin = 0;
    u64 end = 0;
    i64 lastRev = 0;            // of the run's last record
    bool closes = false;        // the run ends at the limit: the commit block may follow in place
    bool reachedLimit = false;  // the block holds records above the limit

    bool IsEmpty() const { return begin == end; }
};

// The records of `block` that are not in the file yet and not above `limit`.
// Errors: RC_BAD_DATA for a block that does not hold whole records.
[[nodiscard]] u32 FindFlushRun(const K9eReplBlock& block, i64 flushedRev, i64 limit, FlushRun* run);

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_FLUSH_RUN_H
