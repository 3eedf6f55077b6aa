// The clients' side of the asynchronous writer: queuing, waiting, starting and ending. The thread's
// side is async_writing.cpp.
#include "writers/async_storage_writer.h"

#include <cassert>
#include <cstring>
#include <new>

#include "platform/clock.h"
#include "platform/system_error.h"
#include "support/log.h"
#include "support/storage_exception.h"

namespace k9erepl {

using platform::WaitResult;

namespace {

constexpr u32 kWaitMs = 60000;
constexpr u32 kMostFreeCommitCopies = 16384;

}  // namespace

AsyncStorageWriter::AsyncStorageWriter(StorageFileState* state, const Options& options)
    : StorageWriter(state), m_buffer(options.bufferCapacity) {
    if (!m_buffer.Init()) {
        LOG_ERROR_CODE(RC_NO_MEMORY, kLogStorage, "malloc failed");
        throw K9eStorageException(RC_NO_MEMORY);
    }
    if (!m_completeEvent.Create()) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Cannot create async task event");
        throw K9eStorageException(RC_SYSTEM_ERROR);
    }
    if (!m_queue.Init()) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Cannot create new task event");
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Cannot init async queue task");
        throw K9eStorageException(RC_SYSTEM_ERROR);
    }
    if (!m_releaseEvent.Create()) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Cannot create release block event");
        throw K9eStorageException(RC_SYSTEM_ERROR);
    }
    m_commitCopies.SetBlockSize(kCommitBlockSize);
    m_commitCopies.SetMaxBlocks(kMostFreeCommitCopies);
    m_stopElem.reset(new (std::nothrow) CAsyncQueueElem{.type = AsyncElemType::kStop});
    if (m_stopElem == nullptr) {
        LOG_ERROR_CODE(RC_NO_MEMORY, kLogStorage, "malloc failed");
        throw K9eStorageException(RC_NO_MEMORY);
    }
    // The thread comes last: nothing behind it can fail and leave a thread to be ended.
    if (const ResultCode rc = StartThread(options.affinity); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage,
                       "Couldn't create async storage thread: K9ThreadCreate failed");
        throw K9eStorageException(rc);
    }
}

AsyncStorageWriter::~AsyncStorageWriter() {
    [[maybe_unused]] const bool ended = Shutdown();
    assert(ended);
    for (AsyncElems left = m_queue.Close(); !left.IsEmpty();) {
        CAsyncQueueElem* const elem = left.TakeFirst();
        FreeCommitCopy(*elem);
        m_queue.GiveBack(elem);
    }
}

ResultCode AsyncStorageWriter::StartThread(u32 affinity) {
    const ResultCode rc = m_thread.Start(&ThreadBody, this, affinity);
    if (rc != RC_OK && !m_thread.CallOff()) {
        m_thread.LetGo();  // the thread has never run and uses nothing of ours
    }
    return rc;
}

ResultCode AsyncStorageWriter::PushToAsyncQueue(const CAsyncQueueElem& work) {
    if (const ResultCode rc = StickyError(); rc != RC_OK) {
        return rc;
    }
    if (const ResultCode rc = CheckElem(work); rc != RC_OK) {
        return rc;
    }
    CAsyncQueueElem* const elem = m_queue.NewElem();
    if (elem == nullptr) {
        return RC_NO_MEMORY;
    }
    *elem = work;
    ResultCode rc = work.type == AsyncElemType::kCommit ? CopyCommitBlock(elem) : ResultCode{RC_OK};
    if (rc == RC_OK && !m_queue.Push(elem)) {
        FreeCommitCopy(*elem);
        rc = StickyError();
    }
    if (rc != RC_OK) {
        m_queue.GiveBack(elem);
    }
    return rc;
}

// Sets the clear revision now: it may have risen by the time the thread comes to the block.
ResultCode AsyncStorageWriter::CopyCommitBlock(CAsyncQueueElem* elem) {
    assert(elem->size == kCommitBlockSize);
    auto* const copy = static_cast<u8*>(m_commitCopies.AllocBlock());
    if (copy == nullptr) {
        return RC_NO_MEMORY;
    }
    std::memcpy(copy, elem->data, kCommitBlockSize);
    SetClearRev(*reinterpret_cast<TCommitBlock*>(copy));
    elem->data = copy;
    return RC_OK;
}

void AsyncStorageWriter::FreeCommitCopy(const CAsyncQueueElem& elem) {
    if (elem.type == AsyncElemType::kCommit) {
        m_commitCopies.ReleaseBlock(elem.data);
    }
}

// Counts the piece in its block before queuing it: the thread may be done with it at once.
ResultCode AsyncStorageWriter::PushPiece(const CAsyncQueueElem& piece) {
    if (piece.memoryBlock != nullptr) {
        piece.memoryBlock->pendingWrites.fetch_add(1, std::memory_order_relaxed);
    }
    const ResultCode rc = PushToAsyncQueue(piece);
    if (rc != RC_OK && piece.memoryBlock != nullptr) {
        piece.memoryBlock->pendingWrites.fetch_sub(1, std::memory_order_relaxed);
    }
    if (rc == RC_OK) {
        m_queuedEnd += piece.size;
    }
    return rc;
}

ResultCode AsyncStorageWriter::Write(u8* data, u32 size, TCommitBlock* commitBlock,
                                     K9eReplBlock* memoryBlock, i64 lastRevision,
                                     std::atomic<i64>* filePosition) {
    if (!m_file.IsOpen()) {
        return RC_NO_WRITER;
    }
    const u32 commitSize = commitBlock == nullptr ? 0 : kCommitBlockSize;
    if (commitBlock == nullptr || size > commitSize) {
        const ResultCode rc = PushPiece({.type = AsyncElemType::kWrite,
                                         .size = size - commitSize,
                                         .data = data,
                                         .memoryBlock = memoryBlock,
                                         .filePosition = filePosition,
                                         .lastRevision = lastRevision});
        if (rc != RC_OK) {
            LOG_ERROR_CODE(rc, kLogStorage, "Cannot push write element to async queue");
            return rc;
        }
    }
    if (commitBlock == nullptr) {
        return RC_OK;
    }
    const ResultCode rc = PushPiece({.type = AsyncElemType::kCommit,
                                     .size = commitSize,
                                     .data = reinterpret_cast<u8*>(commitBlock),
                                     .memoryBlock = memoryBlock,
                                     .lastRevision = lastRevision});
    if (rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Cannot push commit element to async queue");
    }
    return rc;
}

// Only the thread knows the position, which is behind everything queued so far. The last flushed
// revision goes along because it may have risen by the time the thread comes to the element.
ResultCode AsyncStorageWriter::BeginTransaction() {
    if (!m_file.IsOpen()) {
        return RC_NO_WRITER;
    }
    const ResultCode rc =
        PushToAsyncQueue({.type = AsyncElemType::kBeginTransaction,
                          .lastRevision = m_state.lastFlushedRev.load(std::memory_order_acquire)});
    if (rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Cannot push begin transaction element to async queue");
    }
    return rc;
}

// The event may have been set for an earlier task whose waiter gave up, so we compare tickets.
ResultCode AsyncStorageWriter::CompleteAsyncTasks() {
    const u64 ticket = ++m_lastTicket;
    if (const ResultCode rc =
            PushToAsyncQueue({.type = AsyncElemType::kComplete, .ticket = ticket});
        rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Cannot push complete element to async queue");
        return rc;
    }
    const u32 began = platform::TickCountMs();
    do {
        if (const ResultCode rc = WaitFor(m_completeEvent, began); rc != RC_OK) {
            LOG_ERROR_CODE(rc, kLogStorage, "Wait for CompleteAsyncTasksEvent failed");
            return rc;
        }
    } while (m_completed.load(std::memory_order_acquire) < ticket && StickyError() == RC_OK);
    LOG_INFO(kLogStorage, "Wait for finish async operations - OK");
    const ResultCode rc = StickyError();
    if (rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Get error after wait for finish async operations");
    }
    return rc;
}

ResultCode AsyncStorageWriter::WaitFor(platform::AutoResetEvent& event, u32 beganMs) {
    const u32 waited = platform::TickCountMs() - beganMs;
    switch (event.Wait(waited < kWaitMs ? kWaitMs - waited : 0)) {
        case WaitResult::kSignalled:
            return RC_OK;
        case WaitResult::kTimedOut:
            return RC_TIMEOUT;
        case WaitResult::kFailed:
            break;
    }
    return RC_SYSTEM_ERROR;
}

ResultCode AsyncStorageWriter::WaitReleaseBlock() {
    // After a failure no block is released any more, and the failure's signal may already be used
    // up.
    if (StickyError() == RC_OK) {
        if (const ResultCode rc = WaitFor(m_releaseEvent, platform::TickCountMs()); rc != RC_OK) {
            LOG_ERROR_CODE(rc, kLogStorage, "Wait for release block failed");
            return rc;
        }
    }
    const ResultCode rc = StickyError();
    if (rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Get error after wait for release block event");
    }
    return rc;
}

ResultCode AsyncStorageWriter::Rollback() {
    if (const ResultCode rc = CompleteAsyncTasks(); rc != RC_OK) {
        u32 none = RC_OK;
        m_stickyError.compare_exchange_strong(none, rc);
        return rc;
    }
    return RollbackNow();
}

// After a failure we leave the bytes alone: they may belong to flushes that the writer had
// accepted.
ResultCode AsyncStorageWriter::ClearUndone() {
    if (!HasUndone() || StickyError() != RC_OK) {
        return RC_OK;
    }
    const ResultCode rc = CompleteAsyncTasks();
    return rc == RC_OK ? ClearUndoneNow() : rc;
}

bool AsyncStorageWriter::MayStillWrite() const {
    return m_thread.MayStillRun() && !m_ended.load(std::memory_order_acquire);
}

bool AsyncStorageWriter::IsOnOwnThread() const {
    return m_threadId.load(std::memory_order_relaxed) == platform::CurrentThreadId();
}

bool AsyncStorageWriter::LeaveToParent() {
    m_file.Close();
    return !m_thread.MayStillRun();
}

// Allocates nothing, so that what is queued is written whatever happens.
void AsyncStorageWriter::PushStop() {
    if (StickyError() == RC_OK && m_queue.Push(m_stopElem.get())) {
        (void)m_stopElem.release();  // the queue has it
        LOG_INFO(kLogStorage, "Writing thread received stop task");
        return;
    }
    const ResultCode rc = StickyError();
    LOG_ERROR_CODE(rc, kLogStorage, "PushToAsyncQueue(CAsyncQueueElem::STOP) return error %d", rc);
    // If a client set the sticky code, the thread may still be waiting for work.
    m_queue.Wake();
}

bool AsyncStorageWriter::Shutdown() {
    if (!m_thread.IsThere()) {
        return !m_thread.MayStillRun();
    }
    PushStop();
    const ResultCode rc = m_thread.End(kWaitMs, [](u32 code) {
        LOG_ERROR_CODE(code, kLogStorage, "K9ThreadWait() failed; terminating thread");
    });
    if (rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage,
                       "Cannot terminate writing thread; its memory stays allocated");
        m_thread.LetGo();
        return false;
    }
    if (m_file.IsOpen()) {
        (void)FlushNow();  // dropped: it is logged, and nothing is left to be taken back
    }
    return true;
}

}  // namespace k9erepl
