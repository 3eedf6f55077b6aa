// The writer through which every byte reaches the storage file. The storage file owns one and
// calls it under the storage's lock; SyncStorageWriter does the work at once.
#ifndef K9EREPL_WRITERS_STORAGE_WRITER_H
#define K9EREPL_WRITERS_STORAGE_WRITER_H

#include <k9erepl/storage.h>

#include <atomic>
#include <string>

#include "memory/repl_block.h"
#include "platform/file.h"
#include "platform/int_types.h"
#include "solid/file_format.h"
#include "writers/storage_file_state.h"

namespace k9erepl {

// "File offset not known yet", of a position fill-in and of an index entry.
inline constexpr i64 kUnknownOffset = -1;

// Owns a handle on the file, the write position and the start of the open transaction. Results are
// result codes; RC_NO_WRITER when the file is closed. Failures are logged here.
//
// Bytes beyond the write position are dead, but they may look alive: a transaction that was rolled
// back leaves commit blocks behind that fit the chain again. Such a tail is remembered and zeroed
// before anything is written, so that what is written next never borrows an old commit block.
class StorageWriter {
  public:
    // Opens the file of `state`, which must exist; writing begins at its recorded size.
    // Throws K9eStorageException: RC_INVALID_ARG for null, RC_SYSTEM_ERROR when the file cannot
    // be opened.
    explicit StorageWriter(StorageFileState* state);
    virtual ~StorageWriter() = default;
    StorageWriter(const StorageWriter&) = delete;
    StorageWriter& operator=(const StorageWriter&) = delete;

    // Appends `size` bytes. `commitBlock` is null, or the commit block that forms the last 32
    // bytes of `data`: the writer sets its prevSequence and clearRev, and calls onWritten with
    // its commitRev. `memoryBlock` is the block that holds `data`, null when none does.
    // `lastRevision` is only logged. `filePosition` may be null; if it holds kUnknownOffset it
    // receives the offset at which `data` begins.
    // A failure leaves the write position where it was.
    virtual u32 Write(u8* data, u32 size, TCommitBlock* commitBlock, K9eReplBlock* memoryBlock,
                      i64 lastRevision, std::atomic<i64>* filePosition) = 0;

    // Waits until everything queued is written; until some block has no queued write any more.
    // Nothing is ever queued unless the writer is asynchronous.
    virtual u32 CompleteAsyncTasks() { return RC_OK; }
    virtual u32 WaitReleaseBlock() { return RC_OK; }

    // Remembers the write position, the last commit sequence and the last flushed revision.
    virtual u32 BeginTransaction() = 0;
    // Goes back to what BeginTransaction remembered: the next write overwrites the transaction,
    // and its commit block links to the one before the transaction.
    virtual u32 Rollback() = 0;

    // With the setting force_flush: returns when everything written is on the disk.
    virtual u32 FlushFile() = 0;

    // Makes `position` the write position. Without `doSeek` the file pointer stands there already.
    // `tailAbandoned` says that bytes behind it may look like items of the file.
    u32 SetWritePos(i64 position, bool doSeek, bool tailAbandoned = false);
    // Opens another file in place of the present one, which stays when that fails.
    u32 ReopenFile(const std::string& path, bool writeThrough);
    void CloseFile() { m_file.Close(); }

    i64 WritePos() const { return m_fileCurrWritePos.load(std::memory_order_acquire); }
    // For the read cache, which reads up to it.
    const std::atomic<i64>& WritePosRef() const { return m_fileCurrWritePos; }

  protected:
    // What writing a piece is, whoever performs it: growth, stamp, write, notification.
    u32 WriteNow(u8* data, u32 size, TCommitBlock* commitBlock, i64 lastRevision,
                 std::atomic<i64>* filePosition);
    void RememberTransactionStart();
    u32 RollbackNow();
    u32 FlushNow();

    // Zeroes what lies beyond the write position when that is needed; see the class comment.
    u32 ClearAbandonedTail();
    // Grows the file by one step when `size` more bytes would pass its recorded size.
    u32 ExpandFileFor(u32 size);

    StorageFileState& m_state;
    platform::File m_file;
    // The file offset at which the next write lands; read by enumerations while an asynchronous
    // writer advances it.
    std::atomic<i64> m_fileCurrWritePos;

  private:
    struct TransactionStart {
        i64 position = 0;
        i64 lastFlushedRev = 0;
        u32 lastCommitSequence = 0;
    };

    u32 ExpandFile();

    const i64 m_growthStep;
    TransactionStart m_transStart;
    bool m_tailAbandoned = false;
};

}  // namespace k9erepl

#endif  // K9EREPL_WRITERS_STORAGE_WRITER_H
