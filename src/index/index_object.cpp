// The life of the index thread: starting, stopping and restarting it.
#include "index/index_object.h"

#include <k9erepl/storage.h>

#include <memory>
#include <new>

#include "index/index_file.h"
#include "index/index_worker.h"
#include "platform/clock.h"
#include "platform/system_error.h"
#include "platform/thread.h"
#include "support/log.h"
#include "support/params.h"
#include "support/storage_exception.h"

namespace k9erepl {

namespace {

constexpr u32 kLastJoinWaitMs = 1000;  // for the thread's end, when the save has used that up

u32 ReadAffinity(const char* connStr) {
    i32 mask = 0;
    (void)GetParamInt(connStr, "aux_affinity", &mask);  // dropped: without the setting it stays 0
    return static_cast<u32>(mask);
}

}  // namespace

IndexObject::IndexObject(const char* connStr, IK9eReplDS& idle, u32 blockSize, u32 waitMs)
    : m_path(IndexFileName(connStr)),
      m_idle(idle),
      m_blockSize(blockSize),
      m_waitMs(waitMs),
      m_affinity(ReadAffinity(connStr)) {
    if (m_path.empty()) {
        throw K9eStorageException(RC_INVALID_ARG);
    }
    auto worker = std::make_unique<IndexWorker>(m_path, m_idle, m_blockSize, m_waitMs);
    LOG_INFO(kLogIndex, "Using index file '%s'", m_path.c_str());
    m_worker = worker.release();
}

IndexObject::~IndexObject() {
    Stop();
    delete m_worker.load();
}

ResultCode IndexObject::Start() {
    Stop();
    m_stopWaitLeftMs = kStopWaitMs;
    if (!MakeWorker()) {
        LOG_ERROR_CODE(RC_NO_MEMORY, kLogIndex, "Couldn't allocate buffer");
        return RC_NO_MEMORY;
    }
    IndexWorker& worker = *m_worker.load();
    const ResultCode rc = worker.Prepare();
    return rc == RC_OK ? RunThread(worker) : rc;
}

void IndexObject::Stop() {
    if (!m_thread.IsThere()) {
        return;
    }
    IndexWorker& worker = *m_worker.load();
    if (worker.RunsOnThisThread()) {
        LeaveThreadToItself(worker);
        return;
    }
    const u32 joinMs = WaitForSave(worker);
    if (!worker.IsFinished()) {
        worker.SendStop();
    }
    const ResultCode rc = m_thread.End(joinMs, [](u32 code) {
        LOG_ERROR_CODE(code, kLogIndex, "K9ThreadWait() failed; terminating thread");
    });
    if (rc != RC_OK) {
        GiveUpThread();
        return;
    }
    LOG_INFO(kLogIndex, "Thread closed");
    worker.CleanUp();
    worker.ReportTimes();
}

void IndexObject::EndWriting() {
    if (!m_thread.IsThere()) {
        return;
    }
    IndexWorker& worker = *m_worker.load();
    if (!worker.RunsOnThisThread()) {
        WaitForSave(worker);
        if (worker.IsBusy()) {
            return;  // the save hangs; Stop deals with that
        }
    }
    worker.EndWriting();
}

void IndexObject::LeaveToParent() {
    IndexWorker* const worker = m_worker.exchange(nullptr);
    if (worker != nullptr) {
        worker->CloseFile();
    }
    if (!m_thread.IsThere()) {
        delete worker;
    }
    m_thread.LeaveToParent();
}

ResultCode IndexObject::RequestSave(const BlockIndex& blockIndex, IndexSaveMode mode) {
    IndexWorker* const worker = m_worker.load();
    return worker != nullptr ? worker->RequestSave(blockIndex, mode) : RequestWithoutWorker(mode);
}

void IndexObject::StartOver() {
    if (IndexWorker* const worker = m_worker.load()) {
        worker->StartOver();
    }
}

// A save that was under way may fail while we wait for our turn, and end the thread with it. Then
// we start a new thread and try again.
ResultCode IndexObject::Empty() {
    if (!IsFinished()) {
        const ResultCode rc = m_worker.load()->Empty();
        if (rc == RC_OK || !IsFinished()) {
            return rc;
        }
    }
    if (ResultCode rc = Start(); rc != RC_OK) {
        return rc;
    }
    return m_worker.load()->Empty();
}

bool IndexObject::IsBusy() const {
    const IndexWorker* const worker = m_worker.load();
    return worker != nullptr && worker->IsBusy();
}

bool IndexObject::IsFinished() const {
    const IndexWorker* const worker = m_worker.load();
    return worker == nullptr || worker->IsFinished();
}

bool IndexObject::MakeWorker() {
    try {
        if (m_worker.load() == nullptr) {
            m_worker = new IndexWorker(m_path, m_idle, m_blockSize, m_waitMs);
        }
        return true;
    } catch (const K9eStorageException&) {
        return false;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

ResultCode IndexObject::RunThread(IndexWorker& worker) {
    LOG_INFO(kLogIndex, "Starting thread");
    const ResultCode rc = m_thread.Start(&IndexWorker::ThreadBody, &worker, m_affinity);
    if (rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogIndex, "Couldn't begin thread: K9ThreadCreate failed; sysErr %r",
                       platform::LastSystemError());
        AbandonLaunch(worker);
        return rc;
    }
    worker.WaitUntilUp();
    if (worker.IsFinished()) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogIndex, "Index thread is finished unexpectedly");
        Stop();
        return RC_SYSTEM_ERROR;
    }
    return RC_OK;
}

void IndexObject::AbandonLaunch(IndexWorker& worker) {
    if (!m_thread.CallOff()) {
        GiveUpThread();
        return;
    }
    worker.CleanUp();
}

ResultCode IndexObject::RequestWithoutWorker(IndexSaveMode mode) const {
    if (mode == IndexSaveMode::kAsync) {
        return RC_OK;
    }
    LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogIndex, "Couldn't write file '%s' (%s); sysErr %r",
                   m_path.c_str(), "full", platform::LastSystemError());
    return RC_SYSTEM_ERROR;
}

// Returns how many milliseconds are left for the thread's end.
u32 IndexObject::WaitForSave(const IndexWorker& worker) {
    const u32 begin = platform::TickCountMs();
    platform::PollingWait wait;
    for (;;) {
        const u32 waited = platform::TickCountMs() - begin;
        if (waited >= m_stopWaitLeftMs) {
            m_stopWaitLeftMs = 0;
            return kLastJoinWaitMs;
        }
        if (!worker.IsBusy()) {
            m_stopWaitLeftMs -= waited;
            return m_stopWaitLeftMs;
        }
        wait.Next();
    }
}

// The caller is the thread, in its idle call, so it cannot be joined. The worker goes with it.
void IndexObject::LeaveThreadToItself(IndexWorker& worker) {
    worker.LeaveToTheThread();
    m_thread.LetGo();
    m_worker = nullptr;
}

void IndexObject::GiveUpThread() {
    LOG_ERROR_CODE(RC_TIMEOUT, kLogIndex, "Cannot terminate thread; its memory stays allocated");
    m_thread.LetGo();
    m_worker = nullptr;
}

}  // namespace k9erepl
