// The writer through which every byte reaches the storage file. The storage file owns one and
// calls it under the storage's lock; SyncStorageWriter does the work at once.
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
#include "writers/storage_file_state.h"

namespace k9erepl {

// Owns a handle on the file and the start of the open transaction; moves the state's write
// position. Results are result codes; RC_NO_WRITER when the file is closed. Failures are logged
// here.
//
// Bytes beyond the write position are dead, but they may look alive: a transaction that was rolled
// back leaves commit blocks behind that fit the chain again. Such a tail is remembered and zeroed
// before anything is written, so that what is written next never borrows an old commit block. What
// this writer itself has undone is zeroed by ClearUndone, so that no load serves it.
//
// With the settings force_flush and commit_barrier a writer that writes at once flushes to the disk
// what a commit block commits before it writes the block. The bytes of the file are the same.
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
    // A failure leaves the write position and *filePosition as they were.
    virtual u32 Write(u8* data, u32 size, TCommitBlock* commitBlock, K9eReplBlock* memoryBlock,
                      i64 lastRevision, std::atomic<i64>* filePosition) = 0;

    // Waits until everything queued is written; until some block has no queued write any more.
    // Nothing is ever queued unless the writer is asynchronous.
    virtual u32 CompleteAsyncTasks() { return RC_OK; }
    virtual u32 WaitReleaseBlock() { return RC_OK; }

    // Remembers the write position, the last commit sequence and the last flushed revision.
    virtual u32 BeginTransaction() = 0;
    // Goes back to what BeginTransaction remembered: the next write overwrites the transaction,
    // and its commit block links to the one before the transaction. Does nothing when no
    // transaction was begun since the last SetWritePos. RC_SYSTEM_ERROR says that the file
    // pointer did not follow; everything else has gone back, and the next write moves the pointer.
    virtual u32 Rollback() = 0;

    // Zeroes what a rollback or a failed write has left behind the write position; what a load
    // found there stays until the first write. Does nothing when nothing was undone, nor when the
    // writing thread has failed: then what lies there may have been acknowledged. A failure is
    // logged and left for the next write. Not inside a transaction that has written something.
    virtual u32 ClearUndone() = 0;

    // With the setting force_flush: returns when everything written is on the disk. After a
    // failure the system may have dropped what it could not store: whoever gets one must roll
    // back and write again before the next FlushFile.
    virtual u32 FlushFile() = 0;

    // Ends what runs beside the clients. False when that failed: this object, the state and the
    // memory blocks must then stay allocated for ever. To be called before the destructor.
    virtual bool Shutdown() { return true; }
    // Whether something that was queued may still be written although an operation failed.
    virtual bool MayStillWrite() const { return false; }

    // Whether the caller is the thread that carries out what was queued.
    virtual bool IsOnOwnThread() const { return false; }
    // In a forked child, in which nothing of this may be used any more: closes the file. False when
    // the parent has a thread that may have been changing this object and the state at the fork:
    // both must then stay allocated.
    virtual bool LeaveToParent() {
        m_file.Close();
        return true;
    }

    // Makes `position` the write position and forgets the transaction. With `doSeek` the file
    // pointer is moved at once, and nothing changes when that fails; else by the next write.
    // `tailAbandoned` says that bytes behind the position may look like items of the file.
    u32 SetWritePos(i64 position, bool doSeek, bool tailAbandoned = false);
    // Opens another file in place of the present one, which stays when that fails. Its bytes
    // beyond the write position are taken for zeros.
    u32 ReopenFile(const std::string& path, bool writeThrough);
    void CloseFile() { m_file.Close(); }
    // The writer's handle, for operations on the file as a whole, which may move its pointer.
    // REQUIRES: nothing is queued.
    platform::File& BorrowFile() {
        m_pointerInPlace = false;
        return m_file;
    }

    // Makes `file`, a storage file, end at `dataSize`, but not before the size of a new file: an
    // earlier version could not load a shorter one after a crash. There, zeros overwrite what lies
    // behind the first commit block. Moves the pointer. False: LastSystemError().
    static bool CutFile(platform::File& file, i64 dataSize);

    i64 WritePos() const { return m_fileCurrWritePos.load(std::memory_order_acquire); }

  protected:
    // What writing at once is: the clear revision, preparation, link, write, notification.
    u32 WriteNow(u8* data, u32 size, TCommitBlock* commitBlock, i64 lastRevision,
                 std::atomic<i64>* filePosition);
    // The same without the clear revision, the barrier and the notification.
    u32 WritePiece(u8* data, u32 size, TCommitBlock* commitBlock, i64 lastRevision,
                   std::atomic<i64>* filePosition) {
        return WritePiece(data, size, commitBlock, lastRevision, filePosition, false);
    }
    // Rollback will go back to `position`, `lastFlushedRev` and the present sequence.
    u32 RememberTransactionStart(i64 position, i64 lastFlushedRev);
    u32 RollbackNow();
    u32 ClearUndoneNow();
    u32 FlushNow();

    // Whether ClearUndone has something to do; asked by any thread.
    bool HasUndone() const { return m_tail.load(std::memory_order_relaxed) == Tail::kUndone; }

    // The steps of WriteNow. PrepareWrite makes the file ready to take `size` bytes at the write
    // position: it clears an abandoned tail, grows the file by one step when the bytes would pass
    // its recorded size, and puts the file pointer in place.
    u32 PrepareWrite(u32 size);
    // Gives the commit block the clear revision of the moment; its link to the one before it.
    void SetClearRev(TCommitBlock& commitBlock) const;
    void Link(TCommitBlock& commitBlock) const;
    // Writes at the file pointer and advances the write position.
    u32 WriteBytes(const void* data, u32 size);

    StorageFileState& m_state;
    platform::File m_file;
    // The state's writePos; read by enumerations while an asynchronous writer advances it.
    std::atomic<i64>& m_fileCurrWritePos;

  private:
    // What may lie beyond the write position. ClearAbandonedTail makes it kClear; otherwise it only
    // rises.
    enum class Tail : u8 {
        kClear,   // nothing that looks like an item
        kFound,   // items of before this writer: a torn or damaged end, old content
        kUndone,  // items that this writer wrote and took back
    };

    struct TransactionStart {
        i64 position;
        i64 lastFlushedRev;
        u32 lastCommitSequence;
    };

    u32 WritePiece(u8* data, u32 size, TCommitBlock* commitBlock, i64 lastRevision,
                   std::atomic<i64>* filePosition, bool barrier);
    u32 WriteBehindBarrier(const u8* data, u32 size);
    u32 ForceToDisk();
    void RaiseTail(Tail tail);
    u32 ClearAbandonedTail();
    bool ZeroTail(i64 position);
    u32 SeekToWritePos();
    u32 ExpandFile();

    const i64 m_growthStep;
    std::optional<TransactionStart> m_transStart;
    // Changed by whoever writes, hence atomic; a client asks HasUndone without waiting for that.
    std::atomic<Tail> m_tail{Tail::kClear};
    // The file pointer is known to stand at the write position.
    bool m_pointerInPlace = false;
    // Bytes before the write position may not be on the disk. True at first: a process that was
    // killed may have left some.
    bool m_unforced = true;
};

}  // namespace k9erepl

#endif  // K9EREPL_WRITERS_STORAGE_WRITER_H
