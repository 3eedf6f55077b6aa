// The values of the storage file that its writer reads and updates. The storage file holds one and
// hands the writer a reference, so that the writer knows no storage file.
#ifndef K9EREPL_WRITERS_STORAGE_FILE_STATE_H
#define K9EREPL_WRITERS_STORAGE_FILE_STATE_H

#include <atomic>
#include <string>

#include "platform/int_types.h"
#include "support/flush_callback.h"

namespace k9erepl {

struct StorageFileState {
    // Set when the file is opened, then constant.
    std::string path;
    bool writeThrough = false;  // setting write_through: every write reaches the disk
    bool forceFlush = false;    // setting force_flush: FlushFile flushes to the disk
    // Setting commit_barrier; means something only with forceFlush, see StorageWriter.
    bool commitBarrier = false;
    i64 fileInitialSize = 0;  // setting file_initial_size, in bytes
    i64 fileSizeDelta = 0;    // setting file_size_delta, in bytes; 0: never grown ahead of data

    // Shared between the thread that writes and the clients' threads; each value stands alone.
    std::atomic<i64> fileSize{0};            // length on disk as last known; see ExpandFile
    std::atomic<i64> writePos{0};            // end of the written data: where the next write lands
    std::atomic<i64> clearRev{0};            // clearRev of the last commit block
    std::atomic<i64> lastFlushedRev{0};      // commitRev of the last commit block
    std::atomic<u32> lastCommitSequence{0};  // sequence of the last commit block
    FlushCallback onWritten;                 // called for each commit block that was written
};

}  // namespace k9erepl

#endif  // K9EREPL_WRITERS_STORAGE_FILE_STATE_H
