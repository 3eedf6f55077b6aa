// The saves of the index file and the loop of the index thread.
#include "index/index_worker.h"

#include <k9erepl/storage.h>

#include <cassert>
#include <new>
#include <utility>

#include "platform/system_error.h"
#include "platform/thread.h"
#include "platform/wait_result.h"
#include "support/log.h"

namespace k9erepl {

IndexWorker::IndexWorker(std::string path, IK9eReplDS& idle, u32 blockSize, u32 waitMs)
    : m_idle(idle),
      m_waitMs(waitMs),
      m_image(blockSize),
      m_file(std::move(path)),
      m_saveCounter(m_timing.Register("Idx-Save")),
      m_syncCounter(m_timing.Register("Idx-Sync")) {
    m_image.StartOver();  // there is no file yet
}

ResultCode IndexWorker::Prepare() {
    assert(IsFinished());
    m_turn.Reset();
    m_image.Reset();
    const ResultCode rc = m_file.Create(m_image);
    if (rc != RC_OK) {
        m_image.StartOver();
        return rc;
    }
    m_failedSave = RC_OK;
    m_up.store(false, std::memory_order_relaxed);
    m_finished.store(false, std::memory_order_release);
    return RC_OK;
}

void IndexWorker::CleanUp() {
    m_finished.store(true, std::memory_order_release);
    m_threadId.store(0, std::memory_order_relaxed);
    m_turn.Reset();
    m_image.StartOver();
    m_file.Close();
    m_wakeUp.Close();
}

void IndexWorker::ReportTimes() {
    m_timing.Report();
}

void IndexWorker::WaitUntilUp() const {
    // Not std::atomic::wait: a thread that was ended from outside may hold what its waiters share.
    platform::PollingWait wait;
    while (!m_up.load(std::memory_order_acquire) && !IsFinished()) {
        wait.Next();
    }
}

// We do not wait for the busy flag: a thread that hangs in a write would keep it.
void IndexWorker::SendStop() {
    m_turn.Give(IndexCommand::kStop);
    LOG_INFO(kLogIndex, "Stop thread request sent");
    (void)m_wakeUp.Set();  // dropped: the thread sees the command at its next time-out
}

bool IndexWorker::RunsOnThisThread() const {
    return m_threadId.load(std::memory_order_relaxed) == platform::CurrentThreadId();
}

void IndexWorker::LeaveToTheThread() {
    assert(RunsOnThisThread());
    TakeTurn();
    m_turn.Release();
    SendStop();
    m_ownedByThread = true;
}

// When the thread itself is the requester, in its idle call, nobody else would carry out a pending
// save, so it does that here. If the save fails, the thread ends when the idle call returns.
void IndexWorker::TakeTurn() {
    if (!RunsOnThisThread()) {
        m_turn.TakeWhenIdle();
        return;
    }
    if (m_turn.Command() == IndexCommand::kSave) {
        if (const ResultCode rc = CarryOutSave(); rc != RC_OK) {
            m_failedSave = rc;
        }
    }
    m_turn.Take();
}

ResultCode IndexWorker::RequestSave(const BlockIndex& blockIndex, IndexSaveMode mode) {
    TakeTurn();
    const IndexTurnHolder holder(m_turn);
    if (mode == IndexSaveMode::kAsync && IsFinished()) {
        return RC_OK;
    }
    const IndexUpdate update = CopyNew(blockIndex);
    if (update == IndexUpdate::kNoMemory) {
        LOG_ERROR_CODE(RC_NO_MEMORY, kLogIndex, "Couldn't allocate buffer");
        return RC_NO_MEMORY;
    }
    if (update == IndexUpdate::kUnchanged) {
        return RC_OK;
    }
    LOG_INFO(kLogIndex, "%s idx save requested", mode == IndexSaveMode::kSync ? "Sync" : "Async");
    if (mode == IndexSaveMode::kSync) {
        return WriteFile();
    }
    m_turn.GiveSave();
    (void)m_wakeUp.Set();  // dropped: the thread sees the command at its next time-out
    return RC_OK;
}

void IndexWorker::StartOver() {
    TakeTurn();
    const IndexTurnHolder holder(m_turn);
    m_image.StartOver();
}

ResultCode IndexWorker::Empty() {
    TakeTurn();
    const IndexTurnHolder holder(m_turn);
    m_image.StartOver();
    if (m_image.Update(BlockIndex{}) == IndexUpdate::kNoMemory) {
        return RC_NO_MEMORY;
    }
    const ResultCode rc = WriteFile();
    return rc == RC_OK ? m_file.FlushToDisk() : rc;
}

void IndexWorker::EndWriting() {
    TakeTurn();
    const IndexTurnHolder holder(m_turn);
    m_file.Close();
}

u32 IndexWorker::ThreadBody(void* worker) {
    auto* const self = static_cast<IndexWorker*>(worker);
    const u32 exitCode = self->Run();
    if (self->m_ownedByThread) {
        self->CleanUp();
        self->ReportTimes();
        delete self;
    }
    return exitCode;
}

// Nothing here or below catches an exception that it does not know: where threads are ended by an
// exception (POSIX), that must pass.
ResultCode IndexWorker::Run() {
    LOG_INFO(kLogIndex, "Thread started; TID %u", platform::CurrentThreadId());
    if (!m_wakeUp.Create()) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogIndex, "K9EventCreate failed; %r",
                       platform::LastSystemError());
        m_finished.store(true, std::memory_order_release);
        return RC_SYSTEM_ERROR;
    }
    m_threadId.store(platform::CurrentThreadId(), std::memory_order_relaxed);
    m_up.store(true, std::memory_order_release);
    const u32 exitCode = ServeUntilStopped();
    Leave(exitCode);
    return exitCode;
}

ResultCode IndexWorker::ServeUntilStopped() {
    try {
        return Serve();
    } catch (const std::bad_alloc&) {
        return RC_NO_MEMORY;
    }
}

ResultCode IndexWorker::Serve() {
    for (;;) {
        const platform::WaitResult result = m_wakeUp.Wait(m_waitMs);
        if (result == platform::WaitResult::kFailed) {
            return RC_SYSTEM_ERROR;
        }
        switch (m_turn.Command()) {
            case IndexCommand::kSave:
                if (const ResultCode rc = CarryOutSave(); rc != RC_OK) {
                    return rc;
                }
                break;
            case IndexCommand::kStop:
                LOG_INFO(kLogIndex, "Stop thread request received");
                return RC_OK;
            case IndexCommand::kNone:
                if (result == platform::WaitResult::kTimedOut) {
                    m_idle.FlushOnIdle();
                    if (m_failedSave != RC_OK) {
                        return m_failedSave;
                    }
                }
                break;
        }
    }
}

ResultCode IndexWorker::CarryOutSave() {
    m_turn.Take();
    const IndexTurnHolder holder(m_turn);
    const ResultCode rc = WriteFile();
    m_turn.EndSave();
    return rc;
}

void IndexWorker::Leave(u32 exitCode) {
    m_turn.Take();
    LOG_INFO(kLogIndex, "Thread finished; TID %u;exit code 0x%X", platform::CurrentThreadId(),
             exitCode);
    m_image.StartOver();
    m_file.Close();
    m_threadId.store(0, std::memory_order_relaxed);
    m_finished.store(true, std::memory_order_release);
    m_turn.Reset();
}

IndexUpdate IndexWorker::CopyNew(const BlockIndex& blockIndex) {
    m_timing.Start(m_syncCounter);
    const IndexUpdate update = m_image.Update(blockIndex);
    if (update != IndexUpdate::kNoMemory) {
        m_timing.Stop(m_syncCounter);
    }
    return update;
}

ResultCode IndexWorker::WriteFile() {
    m_timing.Start(m_saveCounter);
    const ResultCode rc = m_file.Write(m_image);
    if (rc != RC_OK) {
        m_image.StartOver();
        return rc;
    }
    m_image.MarkSaved();
    m_timing.Stop(m_saveCounter);
    return RC_OK;
}

}  // namespace k9erepl
