// The life of a worker thread, built on platform::Thread.
#include "support/worker_thread.h"

namespace k9erepl {

namespace {

constexpr u32 kNeverRanExitCode = 1;
constexpr u32 kTerminatedExitCode = 20;

}  // namespace

ResultCode WorkerThread::Start(platform::ThreadBody body, void* argument, u32 affinity) {
    assert(!IsThere());
    m_letGo = false;
    m_record.reset(NewInParserMemory<platform::Thread>());
    if (m_record == nullptr) {
        return RC_NO_MEMORY;
    }
    const bool runs = m_record->Create(body, argument) &&
                      (affinity == 0 || m_record->SetAffinity(affinity)) && m_record->Resume();
    return runs ? RC_OK : RC_SYSTEM_ERROR;
}

bool WorkerThread::CallOff() {
    if (m_record != nullptr && m_record->IsCreated() && !m_record->Terminate(kNeverRanExitCode)) {
        return false;
    }
    m_record.reset();
    return true;
}

void WorkerThread::LetGo() {
    assert(IsThere());
    m_record->Detach();
    m_record.reset();
    m_letGo = true;
}

ResultCode WorkerThread::CodeOf(platform::WaitResult failedWait) {
    return failedWait == platform::WaitResult::kTimedOut ? RC_TIMEOUT : RC_SYSTEM_ERROR;
}

bool WorkerThread::Terminate() {
    return m_record->Terminate(kTerminatedExitCode);
}

}  // namespace k9erepl
