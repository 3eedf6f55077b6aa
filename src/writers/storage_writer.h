// The writer of a storage file: every item behind the first commit block goes through it, except
// those of a squeezed copy. The storage file owns one and calls it under the storage's lock.
// SyncStorageWriter does the work at once, AsyncStorageWriter queues it.
#ifndef K9EREPL_WRITERS_STORAGE_WRITER_H
#define K9EREPL_WRITERS_STORAGE_WRITER_H

#include <k9erepl/storage.h>

#include <atomic>
#include <optional>
#include <string>

#include "format/storage_file_format.h"
#include "memory/repl_block.h"
#include "platform/file.h"
#include "platform/int_types.h"
#include "support/result.h"
#include "writers/storage_file_state.h"

namespace k9erepl {

// Owns a handle on the file and the start of the open transaction, and moves the state's write
// position. Every u32 result is a result code, RC_NO_WRITER when the file is closed. Failures are
// logged here.
//
// Bytes beyond the write position are dead, but they may look alive: a transaction that was rolled
// back leaves commit blocks behind that fit the chain again. The writer remembers such a tail and
// zeroes it before it writes anything, so that new records never borrow an old commit block
// (docs/storage-file.md, "Abandoned bytes"). ClearUndone zeroes what this writer itself has undone,
// so that no load serves it.
//
// With the settings force_flush and commit_barrier, a writer that writes at once flushes to the
// disk what a commit block commits before it writes the block. The bytes of the file are the same.
class StorageWriter {
  public:
    // Opens the file of `state`, which must exist; writing begins at its recorded size. `state`
    // outlives this object.
    // Throws K9eStorageException: RC_INVALID_ARG for null, RC_SYSTEM_ERROR when the file cannot
    // be opened.
    explicit StorageWriter(StorageFileState* state);
    virtual ~StorageWriter() = default;
    StorageWriter(const StorageWriter&) = delete;
    StorageWriter& operator=(const StorageWriter&) = delete;

    // Appends `size` bytes. `commitBlock` is null, or the commit block that forms the last 32
    // bytes of `data`: the writer sets its prevSequence and clearRev, and calls onWritten with
    // its commitRev. `memoryBlock` is the block that holds `data`, null when none does.
    // `lastRevision` is only logged. `filePosition` may be null; if it holds kUnknownOffset, it
    // receives the file offset at which `data` begins.
    // A failure leaves the write position and *filePosition as they were.
    [[nodiscard]] virtual ResultCode Write(u8* data, u32 size, TCommitBlock* commitBlock,
                                           K9eReplBlock* memoryBlock, i64 lastRevision,
                                           std::atomic<i64>* filePosition) = 0;

    // CompleteAsyncTasks waits until everything queued is written, WaitReleaseBlock until some
    // block has no queued write any more. Unless the writer is asynchronous nothing is ever queued,
    // and both return at once.
    [[nodiscard]] virtual ResultCode CompleteAsyncTasks() { return RC_OK; }
    [[nodiscard]] virtual ResultCode WaitReleaseBlock() { return RC_OK; }

    // Remembers the write position, the last commit sequence and the last flushed revision.
    [[nodiscard]] virtual ResultCode BeginTransaction() = 0;
    // Goes back to what BeginTransaction remembered: the next write overwrites the transaction,
    // and its commit block links to the one before the transaction. Does nothing when no
    // transaction was begun since the last SetWritePos. RC_SYSTEM_ERROR says that the file
    // pointer could not be moved; everything else has gone back, and the next write moves the
    // pointer.
    [[nodiscard]] virtual ResultCode Rollback() = 0;

    // Zeroes what a rollback or a failed write has left behind the write position. What a load
    // found there stays until the first write. Does nothing when nothing was undone, nor when the
    // writing thread has failed: then what lies there may have been acknowledged. After a failure,
    // which is logged, the next write tries again. Must not be called inside a transaction that has
    // written something.
    [[nodiscard]] virtual ResultCode ClearUndone() = 0;

    // With the setting force_flush: returns when everything written is on the disk. Without it,
    // does nothing. After a failure the system may have dropped what it could not store: the caller
    // must roll back and write again before the next FlushFile.
    [[nodiscard]] virtual ResultCode FlushFile() = 0;

    // Ends the thread, if the writer has one. To be called before the destructor. Returns false
    // when that failed: this object, the state and the memory blocks must then stay allocated for
    // ever.
    [[nodiscard]] virtual bool Shutdown() { return true; }
    // Tells whether something that was queued may still be written although an operation failed.
    virtual bool MayStillWrite() const { return false; }

    // Tells whether the caller is the thread that carries out what was queued.
    virtual bool IsOnOwnThread() const { return false; }
    // To be called in a forked child, where nothing of this may be used any more: closes the file.
    // Returns false when the parent has a thread that may have been changing this object and the
    // state at the fork: both must then stay allocated.
    [[nodiscard]] virtual bool LeaveToParent() {
        m_file.Close();
        return true;
    }

    // Makes `position` the write position, in bytes, and forgets the transaction. With `doSeek` the
    // file pointer is moved at once, and nothing changes when that fails; otherwise the next write
    // moves it. `tailAbandoned` says that bytes behind the position may look like items of the
    // file.
    [[nodiscard]] ResultCode SetWritePos(i64 position, bool doSeek, bool tailAbandoned = false);
    // Opens another file in place of the present one, which stays open when that fails. The new
    // file's bytes beyond the write position must be zeros.
    [[nodiscard]] ResultCode ReopenFile(const std::string& path, bool writeThrough);
    void CloseFile() { m_file.Close(); }
    // The writer's handle, for operations on the file as a whole, which may move its pointer.
    // REQUIRES: nothing is queued.
    platform::File& BorrowFile() {
        m_pointerInPlace = false;
        return m_file;
    }

    // Makes `file`, a storage file, end at `dataSize` bytes, but not before the size of a new file,
    // 1064: an earlier version could not load a shorter one after a crash. In that case it writes
    // zeros between the two. Moves the pointer. Returns false, with LastSystemError(), on failure.
    [[nodiscard]] static bool CutFile(platform::File& file, i64 dataSize);

    // The end of the written data: the file offset of the next write. From any thread.
    i64 WritePos() const { return m_fileCurrWritePos.load(std::memory_order_acquire); }
    // The file offset at which the data of the next Write will lie: behind everything queued. Means
    // nothing after a failed operation, until a Rollback or SetWritePos has succeeded.
    virtual i64 QueuedEnd() const { return WritePos(); }

  protected:
    // Writes at once: sets the clear revision, prepares the file, links the commit block, writes
    // and calls onWritten.
    [[nodiscard]] ResultCode WriteNow(u8* data, u32 size, TCommitBlock* commitBlock,
                                      i64 lastRevision, std::atomic<i64>* filePosition);
    // The same without the clear revision, the barrier and the notification.
    [[nodiscard]] ResultCode WritePiece(u8* data, u32 size, TCommitBlock* commitBlock,
                                        i64 lastRevision, std::atomic<i64>* filePosition) {
        return WritePiece(data, size, commitBlock, lastRevision, filePosition, false);
    }
    // Makes Rollback go back to `position`, `lastFlushedRev` and the present sequence.
    [[nodiscard]] ResultCode RememberTransactionStart(i64 position, i64 lastFlushedRev);
    [[nodiscard]] ResultCode RollbackNow();
    [[nodiscard]] ResultCode ClearUndoneNow();
    [[nodiscard]] ResultCode FlushNow();

    // Tells whether ClearUndone has something to do; asked by any thread.
    bool HasUndone() const { return m_tail.load(std::memory_order_relaxed) == Tail::kUndone; }

    // The steps of WriteNow. PrepareWrite makes the file ready to take `size` bytes at the write
    // position: it clears an abandoned tail, grows the file by one step when the bytes would pass
    // its recorded size, and puts the file pointer in place.
    [[nodiscard]] ResultCode PrepareWrite(u32 size);
    // Gives the commit block the clear revision that is in force now.
    void SetClearRev(TCommitBlock& commitBlock) const;
    // Gives the commit block the sequence of the one before it.
    void Link(TCommitBlock& commitBlock) const;
    // Writes at the file pointer and advances the write position.
    [[nodiscard]] ResultCode WriteBytes(const void* data, u32 size);

    StorageFileState& m_state;
    // For QueuedEnd of a writer that queues, which adds to it what it queues. The clients' side
    // only.
    i64 m_queuedEnd;
    platform::File m_file;
    // The state's writePos; read by enumerations while an asynchronous writer advances it.
    std::atomic<i64>& m_fileCurrWritePos;

  private:
    // What may lie beyond the write position. ClearAbandonedTail makes it kClear; otherwise it only
    // rises.
    enum class Tail : u8 {
        kClear,   // nothing that looks like an item
        kFound,   // items from before this writer: a torn or damaged end, old content
        kUndone,  // items that this writer wrote and took back
    };

    // What a rollback restores; see BeginTransaction.
    struct TransactionStart {
        i64 position;
        i64 lastFlushedRev;
        u32 lastCommitSequence;
    };

    [[nodiscard]] ResultCode WritePiece(u8* data, u32 size, TCommitBlock* commitBlock,
                                        i64 lastRevision, std::atomic<i64>* filePosition,
                                        bool barrier);
    [[nodiscard]] ResultCode WriteBehindBarrier(const u8* data, u32 size);
    [[nodiscard]] ResultCode ForceToDisk();
    void RaiseTail(Tail tail);
    [[nodiscard]] ResultCode ClearAbandonedTail();
    [[nodiscard]] bool ZeroTail(i64 position);
    [[nodiscard]] ResultCode SeekToWritePos();
    [[nodiscard]] ResultCode ExpandFile();

    const i64 m_growthStep;                        // setting file_size_delta in bytes; 0: none
    std::optional<TransactionStart> m_transStart;  // empty: Rollback does nothing
    // Changed by the thread that writes, hence atomic: a client asks HasUndone without waiting for
    // it.
    std::atomic<Tail> m_tail{Tail::kClear};
    // True when the file pointer is known to stand at the write position.
    bool m_pointerInPlace = false;
    // True when bytes before the write position may not be on the disk yet; so at first, since a
    // process that was killed may have left some. Only the commit barrier asks.
    bool m_unforced = true;
};

}  // namespace k9erepl

#endif  // K9EREPL_WRITERS_STORAGE_WRITER_H
