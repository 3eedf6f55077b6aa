// Saves the block index into the index file, at once or through a thread of its own, which also
// calls the storage's idle flush. The storage object owns one unless it has no file.
#ifndef K9EREPL_INDEX_INDEX_OBJECT_H
#define K9EREPL_INDEX_INDEX_OBJECT_H

#include <k9erepl/storage_interfaces.h>

#include <atomic>
#include <string>

#include "index/block_index.h"
#include "index/index_save_mode.h"
#include "platform/int_types.h"
#include "support/worker_thread.h"

namespace k9erepl {

class IndexWorker;

// Start, Stop, RequestSave, StartOver and Empty are called under the storage's lock (Stop also
// while the storage is torn down); the tests of flags from anywhere. The idle call, whose callbacks
// may clear and close, may call all but Start, and may destroy this object.
class IndexObject {
  public:
    // Reads index_file or file, and aux_affinity. `idle` is called every `waitMs` milliseconds
    // without a request and outlives this object. `blockSize` goes into the file's header.
    // Throws K9eStorageException (RC_INVALID_ARG when the storage has no index file,
    // RC_NO_MEMORY) and std::bad_alloc.
    IndexObject(const char* connStr, IK9eReplDS& idle, u32 blockSize, u32 waitMs);
    // Stops the thread.
    ~IndexObject();
    IndexObject(const IndexObject&) = delete;
    IndexObject& operator=(const IndexObject&) = delete;

    const std::string& Path() const { return m_path; }

    // Makes the file anew, without entries, and starts the thread, after stopping one that is
    // still there. The next save writes everything. Errors: RC_SYSTEM_ERROR, RC_NO_MEMORY.
    u32 Start();
    // Ends the thread, after the save in progress, and closes the file. Waits at most 20 seconds
    // or, if a save takes that long, one more; then the thread is terminated. Called by the thread
    // itself, it returns at once, and the thread ends when its idle call has returned.
    void Stop();
    // Waits for the save in progress, at most 20 seconds, and closes the file, to which nothing is
    // written from now on; the thread goes on until Stop. For the time before the storage file is
    // given free: whoever opens that next makes the index file anew.
    void EndWriting();
    // In a forked child: closes the file in this process. A thread is the parent's, and what it
    // uses stays allocated. To be destroyed next.
    void LeaveToParent();

    // Saves what is new in `blockIndex` since the last save, as far as it is in the storage file.
    // kSync writes the file before it returns; kAsync leaves that to the thread, whose failure
    // shows as IsFinished(); when no thread runs it does nothing. Waits for a save in progress.
    // Errors: RC_SYSTEM_ERROR when the file cannot be written (kSync), RC_NO_MEMORY.
    u32 RequestSave(const BlockIndex& blockIndex, IndexSaveMode mode);

    // The next save writes everything, even when nothing changed: entries that were saved are not
    // valid any more. Waits for a save in progress.
    void StartOver();

    // Takes all entries out of the file, and returns when that is on the disk: what they say will
    // not be true any more. Starts the thread if none runs. Waits for a save in progress.
    // Errors: RC_SYSTEM_ERROR, RC_NO_MEMORY.
    u32 Empty();

    // Whether a save is in progress or requested; whether no thread runs.
    bool IsBusy() const;
    bool IsFinished() const;

  private:
    bool MakeWorker();
    u32 RunThread(IndexWorker& worker);
    void AbandonLaunch(IndexWorker& worker);
    u32 RequestWithoutWorker(IndexSaveMode mode) const;
    static u32 WaitForSave(const IndexWorker& worker);
    void LeaveThreadToItself(IndexWorker& worker);
    void GiveUpThread();

    const std::string m_path;
    IK9eReplDS& m_idle;
    const u32 m_blockSize;
    const u32 m_waitMs;
    u32 m_affinity = 0;  // 0: as the system likes

    WorkerThread m_thread;  // from Start to Stop
    // Null after a thread was given up together with its worker. Workers are not freed while this
    // object lives, so that flags can be tested without a lock.
    std::atomic<IndexWorker*> m_worker{nullptr};
};

}  // namespace k9erepl

#endif  // K9EREPL_INDEX_INDEX_OBJECT_H
