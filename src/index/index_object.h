// Saves the block index into the index file, at once or through a thread of its own, which also
// calls the storage's idle flush. The engine's index keeper owns one, unless the storage has no
// file or is open to read only.
#ifndef K9EREPL_INDEX_INDEX_OBJECT_H
#define K9EREPL_INDEX_INDEX_OBJECT_H

#include <k9erepl/storage_interfaces.h>

#include <atomic>
#include <string>

#include "index/block_index.h"
#include "index/index_save_mode.h"
#include "platform/int_types.h"
#include "support/result.h"
#include "support/worker_thread.h"

namespace k9erepl {

class IndexWorker;

// Threads: Start, Stop, RequestSave, StartOver and Empty are called under the storage's lock, Stop
// also while the storage is torn down. The tests of flags may be called from anywhere. The index
// thread may call back in from inside the idle call, whose callbacks may clear and close: it may
// call all but Start, and may even destroy this object.
class IndexObject {
  public:
    // Reads the settings index_file or file, and aux_affinity. The thread calls `idle` after every
    // `waitMs` milliseconds without a request; `idle` outlives this object. `blockSize`, in bytes,
    // goes into the file's header.
    // Throws K9eStorageException (RC_INVALID_ARG when the storage has no index file,
    // RC_NO_MEMORY) and std::bad_alloc.
    IndexObject(const char* connStr, IK9eReplDS& idle, u32 blockSize, u32 waitMs);
    // Stops the thread.
    ~IndexObject();
    IndexObject(const IndexObject&) = delete;
    IndexObject& operator=(const IndexObject&) = delete;

    const std::string& Path() const { return m_path; }

    // Makes the file anew, without entries, and starts the thread, after stopping one that is
    // still there. The next save writes everything. Errors: RC_SYSTEM_ERROR, RC_NO_MEMORY,
    // RC_INVALID_ARG when a storage file lies at the path; that file stays as it is.
    [[nodiscard]] ResultCode Start();
    // Ends the thread after the save in progress and closes the file. Waits at most 20 seconds, or
    // one more if a save takes that long; then the thread is terminated. Called by the thread
    // itself, it returns at once, and the thread ends when its idle call has returned.
    void Stop();
    // Waits at most 20 seconds for the save in progress and closes the file: nothing is written to
    // it from now on, but the thread goes on until Stop. Called before the storage file's lock is
    // given back, because the next writer of the storage makes the index file anew.
    void EndWriting();
    // To be called in a forked child: closes the file in this process. The thread is the parent's,
    // and what it uses stays allocated. This object must be destroyed next.
    void LeaveToParent();

    // Saves what is new in `blockIndex` since the last save, as far as it is in the storage file.
    // kSync writes the file before it returns. kAsync leaves that to the thread, whose failure
    // shows as IsFinished(); when no thread runs, nothing is done. Waits for a save in progress.
    // Errors: RC_SYSTEM_ERROR when the file cannot be written (kSync), RC_NO_MEMORY.
    [[nodiscard]] ResultCode RequestSave(const BlockIndex& blockIndex, IndexSaveMode mode);

    // Makes the next save write everything, even when nothing changed: the saved entries are no
    // longer valid. Waits for a save in progress.
    void StartOver();

    // Takes all entries out of the file and returns when that is on the disk. Called before the
    // entries become wrong: before a squeeze replaces the storage file or the file starts over.
    // Starts the thread if none runs. Waits for a save in progress.
    // Errors: as Start.
    [[nodiscard]] ResultCode Empty();

    // Tells whether a save is in progress or requested.
    bool IsBusy() const;
    // Tells whether no thread runs: it was never started, was stopped, or ended after a failure.
    bool IsFinished() const;

  private:
    // How long EndWriting and Stop wait, together, for a save in progress and the thread's end.
    static constexpr u32 kStopWaitMs = 20000;

    [[nodiscard]] bool MakeWorker();
    [[nodiscard]] ResultCode RunThread(IndexWorker& worker);
    void AbandonLaunch(IndexWorker& worker);
    [[nodiscard]] ResultCode RequestWithoutWorker(IndexSaveMode mode) const;
    u32 WaitForSave(const IndexWorker& worker);
    void LeaveThreadToItself(IndexWorker& worker);
    void GiveUpThread();

    const std::string m_path;
    IK9eReplDS& m_idle;
    const u32 m_blockSize;  // bytes
    const u32 m_waitMs;     // setting flush_timeout, milliseconds
    u32 m_affinity = 0;     // setting aux_affinity: bit n is processor n; 0: any processor

    // What is left of kStopWaitMs, in milliseconds; 0: the save has used it up.
    u32 m_stopWaitLeftMs = kStopWaitMs;
    WorkerThread m_thread;  // holds a thread from Start to Stop
    // Null after a thread was given up together with its worker. Workers are not freed while this
    // object lives, so that flags can be tested without a lock.
    std::atomic<IndexWorker*> m_worker{nullptr};
};

}  // namespace k9erepl

#endif  // K9EREPL_INDEX_INDEX_OBJECT_H
