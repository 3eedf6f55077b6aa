// Finding the run of a block; see the header.
#include "engine/flush_run.h"

#include <k9erepl/storage.h>

#include <cassert>

#include "engine/block_records.h"
#include "support/log.h"

namespace k9erepl {

namespace {

// The block holds records above the limit: the run is found record by record.
ResultCode FindPartialRun(const K9eReplBlock& block, i64 flushedRev, i64 limit, FlushRun* run) {
    u64 offset = block.flushedEnd;
    while (offset < block.used) {
        BlockRecord record;
        if (!ReadBlockRecord(block, offset, &record)) {
            LOG_ERROR_CODE(RC_BAD_DATA, kLogStorage,
                           "Wrong rec signature while enum to flush;block %s", block.name);
            return RC_BAD_DATA;
        }
        if (record.rec->rev > limit) {
            break;
        }
        if (record.rec->rev > flushedRev) {
            if (run->IsEmpty()) {
                run->begin = offset;
            }
            run->end = offset + record.size;
            run->lastRev = record.rec->rev;
        }
        offset += record.size;
    }
    run->reachedLimit = true;
    return RC_OK;
}

}  // namespace

ResultCode FindFlushRun(const K9eReplBlock& block, i64 flushedRev, i64 limit, FlushRun* run) {
    *run = FlushRun{};
    if (block.flushedEnd >= block.used) {
        return RC_OK;
    }
    if (block.lastRev > limit) {
        return FindPartialRun(block, flushedRev, limit, run);
    }
    assert(block.lastRev > flushedRev);
    run->begin = block.flushedEnd;
    run->end = block.used;
    run->lastRev = block.lastRev;
    run->closes = block.lastRev == limit;
    return RC_OK;
}

}  // namespace k9erepl
