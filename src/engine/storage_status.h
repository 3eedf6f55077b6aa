// The condition of a storage: its state, what is being done to its file, and whether a clear is
// under way. The storage object owns one; the objects that can fail, or must not disturb each
// other, read and change it. docs/architecture.md draws the states ("States").
#ifndef K9EREPL_ENGINE_STORAGE_STATUS_H
#define K9EREPL_ENGINE_STORAGE_STATUS_H

#include <k9erepl/storage.h>

#include <atomic>

#include "platform/int_types.h"
#include "support/result.h"
#include "support/scoped_value.h"

namespace k9erepl {

// The numbers appear in the log.
enum class StorageState : u32 {
    // Not loaded yet, or a load failed: records can neither be inserted nor read.
    kClosed = 1,
    // Everything is allowed, except a second Load where the storage is not read-only.
    kOpen = 2,
    // A setting was refused, or stored data cannot be trusted: records can neither be inserted nor
    // read any more.
    kBroken = 3,
    // A flush failed. Commit tries it again, Rollback gives its transaction up.
    kFlushFailed = 4,
};

// What is being done to the storage file while a callback runs. Callbacks may insert and commit,
// except in the middle of a flush that may still fail (Flusher::MayStillFail). What they commit
// while there is such work is flushed later.
enum class FileWork {
    kNone,       // nothing
    kWriting,    // a flush or clear writes: nobody else may touch the file or move records
    kNotifying,  // a flush is complete and OnFlush is called
};

// Any thread may read the state; everything else is guarded by the storage's lock, and so is
// changing the state.
class StorageStatus {
  public:
    StorageState State() const { return m_state.load(std::memory_order_relaxed); }
    // The number of the state, as log lines show it.
    int StateForLog() const { return static_cast<int>(State()); }
    bool IsOpen() const { return State() == StorageState::kOpen; }
    // True when a transaction may end: the storage is open, or its last flush failed.
    bool MayEnd() const { return IsOpen() || State() == StorageState::kFlushFailed; }

    // RC_OK if `allowed`; else RC_WRONG_STATE, which is logged with the text `event` and the state.
    [[nodiscard]] ResultCode RefuseUnless(bool allowed, const char* event) const {
        return allowed ? ResultCode{RC_OK} : Refuse(event);
    }

    void Set(StorageState state) { m_state.store(state, std::memory_order_relaxed); }
    // Makes the storage Broken and returns `rc`, the reason. REQUIRES: rc is not RC_OK.
    [[nodiscard]] ResultCode Break(ResultCode rc);
    // To be called when a flush failed: the state becomes kFlushFailed, unless the failure broke
    // the storage.
    void EnterFlushFailed();
    // To be called when a flush succeeded: what failed before is in the file now, so kFlushFailed
    // becomes kOpen. Other states stay.
    void LeaveFlushFailed() {
        if (State() == StorageState::kFlushFailed) {
            Set(StorageState::kOpen);
        }
    }

    // True when nothing is being done to the file.
    bool FileIsIdle() const { return m_fileWork == FileWork::kNone; }
    // True in the middle of a flush or a clear of the file; false while OnFlush is called.
    bool FileIsBeingWritten() const { return m_fileWork == FileWork::kWriting; }
    // Says for as long as the result lives that `work` is being done to the file.
    [[nodiscard]] ScopedValue<FileWork> WorkOnFile(FileWork work) { return {m_fileWork, work}; }

    // False in the middle of a flush or a clear: these rely on the places of records and file
    // offsets that they have found.
    bool MayRemove() const { return !FileIsBeingWritten() && !m_clearing; }
    // A clear is under way for as long as the result lives. REQUIRES: MayRemove().
    [[nodiscard]] ScopedValue<bool> BeginClear();

  private:
    // Logs `event` with the state and returns RC_WRONG_STATE.
    [[nodiscard]] ResultCode Refuse(const char* event) const;

    std::atomic<StorageState> m_state{StorageState::kClosed};
    FileWork m_fileWork = FileWork::kNone;  // of the innermost work that is under way
    bool m_clearing = false;  // a clear is under way: its callbacks may start no second one
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_STORAGE_STATUS_H
