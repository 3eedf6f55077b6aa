// What the index thread and the requesters of saves share, and the thread's body. The index object
// owns one and runs the thread; a thread that cannot be ended keeps its worker for ever.
#ifndef K9EREPL_INDEX_INDEX_WORKER_H
#define K9EREPL_INDEX_INDEX_WORKER_H

#include <k9erepl/storage_interfaces.h>

#include <atomic>
#include <string>

#include "index/block_index.h"
#include "index/index_file_writer.h"
#include "index/index_image.h"
#include "index/index_save_mode.h"
#include "index/index_turn.h"
#include "platform/event.h"
#include "platform/int_types.h"
#include "support/timing_set.h"

namespace k9erepl {

class IndexWorker {
  public:
    // As IndexObject. Throws K9eStorageException (RC_NO_MEMORY) and std::bad_alloc.
    IndexWorker(std::string path, IK9eReplDS& idle, u32 blockSize, u32 waitMs);

    // The owner's calls. REQUIRES: no thread runs.
    // Makes the index file anew; the next save writes everything. Then the thread counts as
    // running, to be started with ThreadBody and this worker. Errors: RC_SYSTEM_ERROR.
    u32 Prepare();
    // Closes what the thread left open, whatever way it ended.
    void CleanUp();
    // Logs the times of the saves.
    void ReportTimes();

    // Closes the file in a forked child; the thread is the parent's.
    void CloseFile() { m_file.Close(); }

    // The owner's calls while a thread runs.
    // Waits until the thread can be woken, or has ended.
    void WaitUntilUp() const;
    void SendStop();
    // Whether the caller is the thread, in its idle call.
    bool RunsOnThisThread() const;
    // Instead of joining the thread, by the thread itself: it ends behind its idle call and then
    // deletes this worker. REQUIRES: RunsOnThisThread().
    void LeaveToTheThread();

    // See IndexObject. Waits while the thread saves; the thread itself carries out what is pending.
    u32 RequestSave(const BlockIndex& blockIndex, IndexSaveMode mode);
    void StartOver();
    u32 Empty();
    void EndWriting();
    bool IsBusy() const { return m_turn.IsBusy(); }
    bool IsFinished() const { return m_finished.load(std::memory_order_acquire); }

    // The thread. `worker` is an IndexWorker.
    static u32 ThreadBody(void* worker);

  private:
    u32 Run();
    u32 ServeUntilStopped();
    u32 Serve();
    void TakeTurn();
    u32 CarryOutSave();
    void Leave(u32 exitCode);
    IndexUpdate CopyNew(const BlockIndex& blockIndex);
    u32 WriteFile();

    IK9eReplDS& m_idle;
    const u32 m_waitMs;

    std::atomic<u32> m_threadId{0};      // of the thread while it runs, else 0
    std::atomic<bool> m_up{false};       // the event exists
    std::atomic<bool> m_finished{true};  // no thread runs; changed under the turn
    IndexTurn m_turn;
    platform::AutoResetEvent m_wakeUp;  // made by the thread, closed by the owner after its end

    // The thread's.
    u32 m_failedSave = 0;          // code of a save that failed inside an idle call; 0: none
    bool m_ownedByThread = false;  // LeaveToTheThread was called

    // Belong to whoever has the turn.
    IndexImage m_image;
    IndexFileWriter m_file;
    TimingSet m_timing;
    const u32 m_saveCounter;
    const u32 m_syncCounter;
};

}  // namespace k9erepl

#endif  // K9EREPL_INDEX_INDEX_WORKER_H
