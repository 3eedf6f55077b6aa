// The values of the storage file that its writer reads and updates. The storage file owns one and
// hands the writer a reference, so that the writer need not know the storage file.
#ifndef K9EREPL_WRITERS_STORAGE_FILE_STATE_H
#define K9EREPL_WRITERS_STORAGE_FILE_STATE_H

#include <atomic>
#include <string>

#include "platform/int_types.h"
#include "support/flush_callback.h"

namespace k9erepl {

struct StorageFileState {
    // Set when the file is opened, then constant. The keys are those of docs/configuration.md.
    std::string path;           // setting file
    bool writeThrough = false;  // setting write_through: every write waits for the disk
    bool forceFlush = false;    // setting force_flush: FlushFile flushes to the disk
    // Setting commit_barrier: what a commit block commits is on the disk before the block is
    // written. Has an effect only with forceFlush and without async_mode.
    bool commitBarrier = false;
    i64 fileInitialSize = 0;  // setting file_initial_size, but in bytes; 0: the smallest file
    i64 fileSizeDelta = 0;    // setting file_size_delta, but in bytes; 0: never grown ahead of data

    // Shared between the thread that writes and the clients' threads, hence atomic. Each value is
    // read by itself: no two of them need fit together at any moment. All are 0 until the file is
    // opened and loaded.
    std::atomic<i64> fileSize{0};  // length of the file in bytes, as last known; see ExpandFile
    std::atomic<i64> writePos{0};  // end of the written data: the offset of the next write
    // The clear revision in force, which every later commit block carries.
    std::atomic<i64> clearRev{0};
    // The commitRev of the last commit block. With async_mode it runs ahead of the file.
    std::atomic<i64> lastFlushedRev{0};
    // The sequence of the last commit block, to which the next one links.
    std::atomic<u32> lastCommitSequence{0};
    // OnWriteToFile, called for each commit block that was written; with async_mode on the writing
    // thread, once a system write.
    FlushCallback onWritten;
};

}  // namespace k9erepl

#endif  // K9EREPL_WRITERS_STORAGE_FILE_STATE_H
