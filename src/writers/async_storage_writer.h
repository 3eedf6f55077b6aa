// The asynchronous writer: operations are queued and return at once, a thread of its own carries
// them out in order. The storage file owns it like any writer; the writer factory makes it.
#ifndef K9EREPL_WRITERS_ASYNC_STORAGE_WRITER_H
#define K9EREPL_WRITERS_ASYNC_STORAGE_WRITER_H

#include <atomic>
#include <memory>

#include "memory/blocks_pool_manager.h"
#include "platform/event.h"
#include "support/worker_thread.h"
#include "writers/async_buffer.h"
#include "writers/async_queue.h"
#include "writers/storage_writer.h"

namespace k9erepl {

// The first failure of the writing thread is sticky: the thread ends, and every later operation
// returns its code. Nothing was written after it.
//
// Who owns what: while work is queued, the file, its pointer, the buffer and the transaction's
// start belong to the writing thread; when CompleteAsyncTasks has returned RC_OK and until
// something is queued again, they are the client's. The queue's lock and the events hand them over.
// The thread takes no lock of the storage, so clients wait for it with that lock held; the
// OnWriteToFile callback runs on the thread and must not wait for that lock either.
class AsyncStorageWriter final : public StorageWriter {
  public:
    struct Options {
        u32 affinity = 0;  // processors of the thread, bit by bit; 0: as the system likes
        u32 bufferCapacity = AsyncBuffer::kInnerCapacity;  // bytes; 0: no gathering
    };

    // Opens the file and starts the thread. Throws K9eStorageException (RC_INVALID_ARG,
    // RC_SYSTEM_ERROR, RC_NO_MEMORY) and std::bad_alloc.
    AsyncStorageWriter(StorageFileState* state, const Options& options);
    // Calls Shutdown. Where that may return false, it must have been called before, and this object
    // must not be destroyed.
    ~AsyncStorageWriter() override;

    // See StorageWriter; these are queued. `memoryBlock` and `filePosition` are wanted for data
    // that is more than a commit block. Until the block's pending-write count is 0 again, `data`,
    // the block and *filePosition stay where they are; the commit block may be reused at once.
    // Errors: RC_NO_WRITER, RC_INVALID_ARG, RC_NO_MEMORY, the sticky code. Then nothing was queued,
    // or the data without the commit block: its block counts that.
    u32 Write(u8* data, u32 size, TCommitBlock* commitBlock, K9eReplBlock* memoryBlock,
              i64 lastRevision, std::atomic<i64>* filePosition) override;
    u32 BeginTransaction() override;
    // Waits at most 60 s. Errors: RC_TIMEOUT, RC_SYSTEM_ERROR, the sticky code.
    u32 CompleteAsyncTasks() override;
    u32 WaitReleaseBlock() override;
    // Waits as CompleteAsyncTasks. A rollback that fails makes its code sticky: what is queued
    // would otherwise be written in spite of it.
    u32 Rollback() override;
    // Waits as CompleteAsyncTasks, but only when something was undone.
    u32 ClearUndone() override;
    // Nothing: the file is forced to the disk only by Shutdown.
    u32 FlushFile() override { return RC_OK; }

    // Writes what is queued, ends the thread, waiting at most 60 s, and forces the file to the
    // disk with force_flush. False when the thread could not be ended: this object, the file's
    // state and the memory blocks must then stay where they are.
    bool Shutdown() override;
    bool MayStillWrite() const override;
    bool IsOnOwnThread() const override;
    bool LeaveToParent() override;

  private:
    // --- The client's side
    u32 StartThread(u32 affinity);
    u32 PushToAsyncQueue(const CAsyncQueueElem& work);
    u32 PushPiece(const CAsyncQueueElem& piece);
    void PushStop();
    u32 CopyCommitBlock(CAsyncQueueElem* elem);
    u32 WaitFor(platform::AutoResetEvent& event, u32 beganMs);
    u32 StickyError() const { return m_stickyError.load(std::memory_order_acquire); }

    // --- The writing thread's side
    static u32 ThreadBody(void* writer);
    u32 Run();
    u32 ProcessBatch(AsyncElems& batch);
    u32 ProcessElem(const CAsyncQueueElem& elem, bool last);
    u32 BufferedWrite(const CAsyncQueueElem& elem, bool last);
    u32 WriteDirectly(const CAsyncQueueElem& elem, const char* place);
    u32 Place(const CAsyncQueueElem& elem, const char* place);
    u32 WriteOut(const char* place);
    u32 WriteOutBuffer();
    u32 SetComplete();
    u32 SetReleased(const char* place);
    u32 BeginTransactionAt(i64 lastFlushedRev);
    u32 Notify(i64 commitRev);
    void FreeCommitCopy(const CAsyncQueueElem& elem);
    void Fail(u32 rc);

    // --- Self-synchronised
    platform::AutoResetEvent m_completeEvent;  // a kComplete was carried out, or the thread failed
    platform::AutoResetEvent m_releaseEvent;   // some block was released, or the thread failed
    AsyncQueue m_queue;
    CBlocksPoolManager m_commitCopies;
    // Set by the thread before it drops what is queued; by a client only when a rollback failed.
    std::atomic<u32> m_stickyError{0};
    std::atomic<u64> m_completed{0};   // the ticket of the last kComplete that was carried out
    std::atomic<bool> m_ended{false};  // the thread touches nothing of the clients' any more
    std::atomic<u32> m_threadId{0};    // of the writing thread while it runs its body, else 0

    // --- The client's
    WorkerThread m_thread;
    std::unique_ptr<CAsyncQueueElem> m_stopElem;  // null once it is queued
    u64 m_lastTicket = 0;

    // --- The writing thread's
    AsyncBuffer m_buffer;
    i64 m_pendingRev = 0;  // of the last commit block in the buffer, to be notified; 0: none
    bool m_stopped = false;
};

}  // namespace k9erepl

#endif  // K9EREPL_WRITERS_ASYNC_STORAGE_WRITER_H
