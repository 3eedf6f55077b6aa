// The writing thread of the asynchronous writer: it takes what is queued, gathers small pieces and
// writes them in order. On POSIX systems a thread is ended from outside by an exception, which must
// pass through all of this.
#include "platform/system_error.h"
#include "support/exception_barrier.h"
#include "support/log.h"
#include "support/result.h"
#include "writers/async_storage_writer.h"

namespace k9erepl {

using platform::WaitResult;

u32 AsyncStorageWriter::ThreadBody(void* writer) {
    auto& self = *static_cast<AsyncStorageWriter*>(writer);
    self.m_threadId.store(platform::CurrentThreadId(), std::memory_order_relaxed);
    const u32 exitCode = self.Run();
    self.m_threadId.store(0, std::memory_order_relaxed);
    self.m_ended.store(true, std::memory_order_release);
    return exitCode;
}

ResultCode AsyncStorageWriter::Run() {
    while (!m_stopped) {
        if (StickyError() != RC_OK) {
            return RC_BAD_DATA;
        }
        switch (m_queue.WaitForTask()) {
            case WaitResult::kSignalled: {
                AsyncElems batch = m_queue.TakeAll();
                if (const ResultCode rc = ProcessBatch(batch); rc != RC_OK) {
                    Fail(rc);
                }
                break;
            }
            case WaitResult::kTimedOut:
                break;
            case WaitResult::kFailed:
                LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                               "K9EventWait failed;sys-err %r. Thread exit.",
                               platform::LastSystemError());
                Fail(RC_SYSTEM_ERROR);
                return RC_SYSTEM_ERROR;
        }
    }
    LOG_INFO(kLogStorage, "Writing thread - exit");
    return RC_OK;
}

// After an element has failed, the rest of the batch is dropped without being carried out.
ResultCode AsyncStorageWriter::ProcessBatch(AsyncElems& batch) {
    AsyncElems done;
    ResultCode rc = RC_OK;
    while (!batch.IsEmpty()) {
        CAsyncQueueElem* const elem = batch.TakeFirst();
        if (rc == RC_OK) {
            // A client whose rollback failed has set the code: nothing more may be written.
            rc = StickyError();
        }
        if (rc == RC_OK) {
            rc = ProcessElem(*elem, batch.IsEmpty());
        }
        FreeCommitCopy(*elem);
        done.Append(elem);
    }
    m_queue.Recycle(done);
    return rc;
}

ResultCode AsyncStorageWriter::ProcessElem(const CAsyncQueueElem& elem, bool last) {
    switch (elem.type) {
        case AsyncElemType::kWrite:
        case AsyncElemType::kCommit:
            return BufferedWrite(elem, last);
        case AsyncElemType::kBeginTransaction:
            if (ResultCode rc = BeginTransactionAt(elem.lastRevision); rc != RC_OK) {
                return rc;
            }
            return last ? WriteOutBuffer() : ResultCode{RC_OK};
        case AsyncElemType::kComplete:
            if (ResultCode rc = WriteOutBuffer(); rc != RC_OK) {
                return rc;
            }
            m_completed.store(elem.ticket, std::memory_order_release);
            return SetComplete();
        case AsyncElemType::kStop:
            if (ResultCode rc = WriteOutBuffer(); rc != RC_OK) {
                return rc;
            }
            LOG_INFO(kLogStorage, "Writing thread processed stop task");
            m_stopped = true;
            return RC_OK;
    }
    return RC_BAD_DATA;
}

// The bytes in the buffer belong before the transaction, although they are not in the file yet.
ResultCode AsyncStorageWriter::BeginTransactionAt(i64 lastFlushedRev) {
    return RememberTransactionStart(WritePos() + m_buffer.Size(), lastFlushedRev);
}

ResultCode AsyncStorageWriter::BufferedWrite(const CAsyncQueueElem& elem, bool last) {
    if (elem.size <= m_buffer.Free()) {
        const ResultCode rc = Place(elem, "1");
        return rc == RC_OK && last ? WriteOut("1") : rc;
    }
    if (m_buffer.IsEmpty()) {
        return WriteDirectly(elem, "2");
    }
    if (ResultCode rc = WriteOut("2"); rc != RC_OK) {
        return rc;
    }
    if (last) {
        return WriteDirectly(elem, "1");
    }
    return elem.size <= m_buffer.Capacity() ? Place(elem, "2") : WriteDirectly(elem, "3");
}

ResultCode AsyncStorageWriter::Place(const CAsyncQueueElem& elem, const char* place) {
    const AsyncPiece piece{
        .data = elem.data,
        .size = elem.size,
        .pendingWrites = elem.memoryBlock == nullptr ? nullptr : &elem.memoryBlock->pendingWrites,
        .filePosition = elem.filePosition};
    u8* const copy = m_buffer.Place(piece, WritePos() + m_buffer.Size());
    if (copy == nullptr) {
        LOG_ERROR_CODE(RC_NO_MEMORY, kLogStorage, "Write to async buffer failed (%s)", place);
        return RC_NO_MEMORY;
    }
    if (elem.type == AsyncElemType::kCommit) {
        auto& commitBlock = *reinterpret_cast<TCommitBlock*>(copy);
        Link(commitBlock);
        m_state.lastCommitSequence.store(commitBlock.sequence, std::memory_order_release);
        m_pendingRev = commitBlock.commitRev;
    }
    return RC_OK;
}

ResultCode AsyncStorageWriter::WriteDirectly(const CAsyncQueueElem& elem, const char* place) {
    auto* const commitBlock =
        elem.type == AsyncElemType::kCommit ? reinterpret_cast<TCommitBlock*>(elem.data) : nullptr;
    const ResultCode rc =
        WritePiece(elem.data, elem.size, commitBlock, elem.lastRevision, elem.filePosition);
    if (rc != RC_OK) {
        return rc;
    }
    if (elem.memoryBlock != nullptr && ReleasePiece(&elem.memoryBlock->pendingWrites)) {
        if (ResultCode setRc = SetReleased(place); setRc != RC_OK) {
            return setRc;
        }
    }
    return commitBlock != nullptr ? Notify(commitBlock->commitRev) : ResultCode{RC_OK};
}

ResultCode AsyncStorageWriter::WriteOut(const char* place) {
    const ResultCode rc = WriteOutBuffer();
    if (rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Flush from async buffer failed (%s)", place);
    }
    return rc;
}

ResultCode AsyncStorageWriter::WriteOutBuffer() {
    if (m_buffer.IsEmpty()) {
        return RC_OK;
    }
    if (!m_file.IsOpen()) {
        return RC_NO_WRITER;
    }
    const u32 size = m_buffer.Size();
    if (ResultCode rc = PrepareWrite(size); rc != RC_OK) {
        return rc;
    }
    if (ResultCode rc = WriteBytes(m_buffer.Bytes(), size); rc != RC_OK) {
        return rc;
    }
    LOG_INFO(kLogStorage, "Written data size %P", std::size_t{size});
    bool released = false;
    m_buffer.Settle(&released);
    if (released) {
        if (ResultCode rc = SetReleased(nullptr); rc != RC_OK) {
            return rc;
        }
    }
    if (m_pendingRev != 0) {
        const i64 commitRev = m_pendingRev;
        m_pendingRev = 0;
        return Notify(commitRev);
    }
    return RC_OK;
}

ResultCode AsyncStorageWriter::SetComplete() {
    if (!m_completeEvent.Set()) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Set complete event failed;sys-err %r",
                       platform::LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    return RC_OK;
}

ResultCode AsyncStorageWriter::SetReleased(const char* place) {
    if (m_releaseEvent.Set()) {
        return RC_OK;
    }
    if (place == nullptr) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Set release block event failed");
    } else {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Set release block event failed (%s)", place);
    }
    return RC_SYSTEM_ERROR;
}

// The callback is foreign code, so everything of ours is settled before it. One that throws stops
// the writer: its client did not learn what was written.
ResultCode AsyncStorageWriter::Notify(i64 commitRev) {
    try {
        m_state.onWritten.Call(commitRev);
        return RC_OK;
    } catch (...) {
        return EndException("OnWriteToFile", [](u32 code, const char* call, const char* what) {
            LOG_ERROR_CODE(code, kLogStorage, "%s threw on the writing thread: %s", call, what);
        });
    }
}

// Sets the code before it wakes the clients: they must see it. A code that a client has set stays.
void AsyncStorageWriter::Fail(ResultCode rc) {
    m_ended.store(true, std::memory_order_release);
    u32 none = RC_OK;
    m_stickyError.compare_exchange_strong(none, rc);
    AsyncElems dropped = m_queue.Close();
    AsyncElems done;
    while (!dropped.IsEmpty()) {
        CAsyncQueueElem* const elem = dropped.TakeFirst();
        FreeCommitCopy(*elem);
        done.Append(elem);
    }
    m_queue.Recycle(done);
    // Dropped: whoever waits asks for m_stickyError when its wait runs out.
    (void)m_completeEvent.Set();
    (void)m_releaseEvent.Set();
}

}  // namespace k9erepl
