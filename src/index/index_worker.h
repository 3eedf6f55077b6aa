// Holds what the index thread and the requesters of saves share, and the thread's body. The index
// object owns one and runs the thread; a thread that cannot be ended keeps its worker for ever.
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
#include "support/result.h"
#include "support/timing_set.h"

namespace k9erepl {

// Lives through several threads, one after the other: the owner calls Prepare, starts a thread with
// ThreadBody, later ends it and calls CleanUp. The comments of the members say to whom they belong;
// docs/index-file.md, "The index thread", has the whole exchange and what is done in each failure.
class IndexWorker {
  public:
    // The arguments are those of IndexObject; `path` is that of the index file.
    // Throws K9eStorageException (RC_NO_MEMORY) and std::bad_alloc.
    IndexWorker(std::string path, IK9eReplDS& idle, u32 blockSize, u32 waitMs);

    // The owner's calls. REQUIRES: no thread runs.
    // Makes the index file anew; the next save writes everything. From then on the thread counts as
    // running: the owner starts it with ThreadBody and this worker, or calls CleanUp.
    // Errors: RC_SYSTEM_ERROR; RC_INVALID_ARG when a storage file lies at the path.
    [[nodiscard]] ResultCode Prepare();
    // Closes what the thread left open, whatever way it ended.
    void CleanUp();
    // Logs the times of the saves.
    void ReportTimes();

    // Closes the file in a forked child, where the thread is the parent's. Takes no turn.
    void CloseFile() { m_file.Close(); }

    // The owner's calls while a thread runs.
    // Waits until the thread can be woken or has ended. Otherwise a request made right after the
    // start could be lost.
    void WaitUntilUp() const;
    // Tells the thread to end. Takes no turn: a thread that hangs in a write would never give it.
    void SendStop();
    // Tells whether the caller is the thread, in its idle call.
    bool RunsOnThisThread() const;
    // Called by the thread itself in place of a join, which it cannot do: it ends after its idle
    // call and then deletes this worker. REQUIRES: RunsOnThisThread().
    void LeaveToTheThread();

    // See IndexObject. They wait for the turn while the thread saves; the thread itself first
    // carries out a save that is pending.
    [[nodiscard]] ResultCode RequestSave(const BlockIndex& blockIndex, IndexSaveMode mode);
    void StartOver();
    [[nodiscard]] ResultCode Empty();
    void EndWriting();
    bool IsBusy() const { return m_turn.IsBusy(); }
    bool IsFinished() const { return m_finished.load(std::memory_order_acquire); }

    // The thread. `worker` is an IndexWorker. Returns the thread's exit code: RC_OK after a stop,
    // or the code of what ended the thread.
    static u32 ThreadBody(void* worker);

  private:
    // The thread calls these; requesters call TakeTurn, CopyNew and, for kSync, WriteFile.
    [[nodiscard]] ResultCode Run();
    [[nodiscard]] ResultCode ServeUntilStopped();
    [[nodiscard]] ResultCode Serve();
    void TakeTurn();
    [[nodiscard]] ResultCode CarryOutSave();
    void Leave(u32 exitCode);
    // REQUIRES, of these two: the caller has the turn.
    IndexUpdate CopyNew(const BlockIndex& blockIndex);
    [[nodiscard]] ResultCode WriteFile();

    IK9eReplDS& m_idle;
    const u32 m_waitMs;  // milliseconds

    std::atomic<u32> m_threadId{0};      // of the thread while it runs, else 0
    std::atomic<bool> m_up{false};       // the event exists
    std::atomic<bool> m_finished{true};  // no thread runs
    IndexTurn m_turn;
    platform::AutoResetEvent m_wakeUp;  // made by the thread, closed by the owner after its end

    // Used by the thread alone while it runs.
    ResultCode m_failedSave = 0;   // code of a save that failed inside an idle call; 0: none
    bool m_ownedByThread = false;  // LeaveToTheThread was called

    // Belong to whoever has the turn.
    IndexImage m_image;
    IndexFileWriter m_file;
    TimingSet m_timing;
    const u32 m_saveCounter;  // times the writing of the file
    const u32 m_syncCounter;  // times the copying out of the block index, under the storage's lock
};

}  // namespace k9erepl

#endif  // K9EREPL_INDEX_INDEX_WORKER_H
