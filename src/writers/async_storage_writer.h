// The asynchronous writer: operations are queued and return at once, and a thread of its own
// carries them out in order (setting async_mode). The storage file owns it like any writer; the
// writer factory makes it. docs/architecture.md, "Threads", says who owns what data and when.
#ifndef K9EREPL_WRITERS_ASYNC_STORAGE_WRITER_H
#define K9EREPL_WRITERS_ASYNC_STORAGE_WRITER_H

#include <atomic>
#include <memory>

#include "memory/blocks_pool_manager.h"
#include "platform/event.h"
#include "support/result.h"
#include "support/worker_thread.h"
#include "writers/async_buffer.h"
#include "writers/async_queue.h"
#include "writers/storage_writer.h"

namespace k9erepl {

// The first failure of the writing thread is sticky: the thread ends, and every later operation
// returns its code. Nothing is written after it, so the file ends with what was written before.
//
// Who owns what: while work is queued, the file, its pointer, the buffer and the transaction's
// start belong to the writing thread. When CompleteAsyncTasks has returned RC_OK, and until
// something is queued again, they are the client's. The queue's lock and the events hand them over.
// The thread takes no lock of the storage, so clients may wait for it with that lock held. The
// OnWriteToFile callback runs on the thread and must not wait for that lock either.
class AsyncStorageWriter final : public StorageWriter {
  public:
    struct Options {
        // Setting aux_affinity: bit n lets the thread run on processor n; 0: on any processor.
        u32 affinity = 0;
        // Setting async_buffer_size, but in bytes: up to 4 MiB; 0: nothing is gathered.
        u32 bufferCapacity = AsyncBuffer::kInnerCapacity;
    };

    // Opens the file and starts the thread. `state` outlives this object, and stays for ever when
    // Shutdown returns false. Throws K9eStorageException (RC_INVALID_ARG, RC_SYSTEM_ERROR,
    // RC_NO_MEMORY) and std::bad_alloc.
    AsyncStorageWriter(StorageFileState* state, const Options& options);
    // Calls Shutdown, which must not fail here: an owner that cannot rule that out calls Shutdown
    // first, and does not destroy this object if it returns false.
    ~AsyncStorageWriter() override;

    // See StorageWriter; Write and BeginTransaction are queued. Data that is more than a commit
    // block needs `memoryBlock` and `filePosition`. Until the block's pending-write count is 0
    // again, `data`, the block and *filePosition must stay where they are. The commit block is
    // copied: it may be reused at once.
    // Errors: RC_NO_WRITER, RC_INVALID_ARG, RC_NO_MEMORY, the sticky code. After one, either
    // nothing was queued, or the data but not its commit block; the pending-write count then covers
    // the data.
    [[nodiscard]] ResultCode Write(u8* data, u32 size, TCommitBlock* commitBlock,
                                   K9eReplBlock* memoryBlock, i64 lastRevision,
                                   std::atomic<i64>* filePosition) override;
    [[nodiscard]] ResultCode BeginTransaction() override;
    i64 QueuedEnd() const override { return m_queuedEnd; }
    // Both wait at most 60 s. Errors: RC_TIMEOUT, RC_SYSTEM_ERROR, the sticky code; from
    // CompleteAsyncTasks also RC_NO_MEMORY.
    [[nodiscard]] ResultCode CompleteAsyncTasks() override;
    [[nodiscard]] ResultCode WaitReleaseBlock() override;
    // Waits as CompleteAsyncTasks does. A wait that fails makes its code sticky: otherwise what is
    // queued would still be written in spite of the rollback.
    [[nodiscard]] ResultCode Rollback() override;
    // Waits as CompleteAsyncTasks does, but only when something was undone.
    [[nodiscard]] ResultCode ClearUndone() override;
    // Does nothing: only Shutdown forces the file to the disk.
    [[nodiscard]] ResultCode FlushFile() override { return RC_OK; }

    // Writes what is queued, ends the thread, for which it waits at most 60 s, and with force_flush
    // forces the file to the disk; a failure of that is only logged. Returns false when the thread
    // could not be ended: this object, the file's state and the memory blocks must then stay where
    // they are.
    [[nodiscard]] bool Shutdown() override;
    bool MayStillWrite() const override;
    bool IsOnOwnThread() const override;
    [[nodiscard]] bool LeaveToParent() override;

  private:
    // --- The client's side: called under the storage's lock
    [[nodiscard]] ResultCode StartThread(u32 affinity);
    [[nodiscard]] ResultCode PushToAsyncQueue(const CAsyncQueueElem& work);
    [[nodiscard]] ResultCode PushPiece(const CAsyncQueueElem& piece);
    void PushStop();
    [[nodiscard]] ResultCode CopyCommitBlock(CAsyncQueueElem* elem);
    [[nodiscard]] ResultCode WaitFor(platform::AutoResetEvent& event, u32 beganMs);
    ResultCode StickyError() const { return m_stickyError.load(std::memory_order_acquire); }

    // --- The writing thread's side. `last`: nothing more of this batch follows, so what is
    // buffered is written out. `place` tells the calls of one function apart in the log.
    static u32 ThreadBody(void* writer);
    [[nodiscard]] ResultCode Run();
    [[nodiscard]] ResultCode ProcessBatch(AsyncElems& batch);
    [[nodiscard]] ResultCode ProcessElem(const CAsyncQueueElem& elem, bool last);
    [[nodiscard]] ResultCode BufferedWrite(const CAsyncQueueElem& elem, bool last);
    [[nodiscard]] ResultCode WriteDirectly(const CAsyncQueueElem& elem, const char* place);
    [[nodiscard]] ResultCode Place(const CAsyncQueueElem& elem, const char* place);
    [[nodiscard]] ResultCode WriteOut(const char* place);
    [[nodiscard]] ResultCode WriteOutBuffer();
    [[nodiscard]] ResultCode SetComplete();
    [[nodiscard]] ResultCode SetReleased(const char* place);
    [[nodiscard]] ResultCode BeginTransactionAt(i64 lastFlushedRev);
    [[nodiscard]] ResultCode Notify(i64 commitRev);
    void FreeCommitCopy(const CAsyncQueueElem& elem);
    void Fail(ResultCode rc);

    // --- Self-synchronised
    platform::AutoResetEvent m_completeEvent;  // a kComplete was carried out, or the thread failed
    platform::AutoResetEvent m_releaseEvent;   // some block was released, or the thread failed
    AsyncQueue m_queue;
    CBlocksPoolManager m_commitCopies;  // blocks of 32 bytes
    // The code of the first failure; RC_OK: none. Set by the thread before it drops what is queued,
    // by a client only when a rollback failed. Never changes again.
    std::atomic<ResultCode> m_stickyError{0};
    std::atomic<u64> m_completed{0};   // the ticket of the last kComplete carried out; 0: none
    std::atomic<bool> m_ended{false};  // the thread touches nothing of the clients' any more
    std::atomic<u32> m_threadId{0};    // of the writing thread while it runs its body, else 0

    // --- The client's
    WorkerThread m_thread;
    // Made beforehand, so that stopping needs no memory. Null once it is queued.
    std::unique_ptr<CAsyncQueueElem> m_stopElem;
    u64 m_lastTicket = 0;  // of the last kComplete that was made; 0: none

    // --- The writing thread's
    AsyncBuffer m_buffer;
    i64 m_pendingRev = 0;    // commitRev of the last commit block in the buffer; 0: none there
    bool m_stopped = false;  // kStop was carried out
};

}  // namespace k9erepl

#endif  // K9EREPL_WRITERS_ASYNC_STORAGE_WRITER_H
