// The condition of a storage: its state, what is being done to its file, and whether a clear is
// under way. The storage object owns one; the parts that may fail or must not disturb each other
// look at it and change it.
#ifndef K9EREPL_ENGINE_STORAGE_STATUS_H
#define K9EREPL_ENGINE_STORAGE_STATUS_H

#include <k9erepl/storage.h>

#include <atomic>

#include "platform/int_types.h"
#include "support/scoped_value.h"

namespace k9erepl {

enum class StorageState : u32 {
    kClosed = 1,       // not loaded yet
    kOpen = 2,         // everything is allowed
    kBroken = 3,       // a setting was refused or stored data cannot be trusted: nothing is
    kFlushFailed = 4,  // a flush failed: Commit tries again, Rollback gives up
};

// The work on the storage file that callbacks find under way. They may insert and commit, except
// in the middle of a flush that may still fail; unless there is no such work, what they commit is
// flushed later.
enum class FileWork {
    kNone,
    kWriting,    // nobody else may touch the file, nor move records
    kNotifying,  // a flush is complete; OnFlush is told
};

// The state may be read by anyone; everything else is guarded by the storage's lock.
class StorageStatus {
  public:
    StorageState State() const { return m_state.load(std::memory_order_relaxed); }
    int StateForLog() const { return static_cast<int>(State()); }
    bool IsOpen() const { return State() == StorageState::kOpen; }
    // A transaction may end: the storage is open, or its last flush failed.
    bool MayEnd() const { return IsOpen() || State() == StorageState::kFlushFailed; }

    // RC_OK, or RC_WRONG_STATE, logged, unless `allowed`; `event` is what failed.
    [[nodiscard]] u32 RefuseUnless(bool allowed, const char* event) const {
        return allowed ? u32{RC_OK} : Refuse(event);
    }

    void Set(StorageState state) { m_state.store(state, std::memory_order_relaxed); }
    // Returns `rc`, the reason why.
    [[nodiscard]] u32 Break(u32 rc);
    // A flush failed: kFlushFailed, unless that broke the storage.
    void EnterFlushFailed();
    // A flush succeeded: what failed before is in the file now.
    void LeaveFlushFailed();

    bool FileIsIdle() const { return m_fileWork == FileWork::kNone; }
    bool FileIsBeingWritten() const { return m_fileWork == FileWork::kWriting; }
    [[nodiscard]] ScopedValue<FileWork> WorkOnFile(FileWork work) { return {m_fileWork, work}; }

    // Not in the middle of a flush or of a clear: records and file offsets must stay where those
    // have found them.
    bool MayRemove() const { return !FileIsBeingWritten() && !m_clearing; }
    // REQUIRES: MayRemove().
    [[nodiscard]] ScopedValue<bool> BeginClear();

  private:
    [[nodiscard]] u32 Refuse(const char* event) const;

    std::atomic<StorageState> m_state{StorageState::kClosed};
    FileWork m_fileWork = FileWork::kNone;
    bool m_clearing = false;  // callbacks of the clear start no second one
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_STORAGE_STATUS_H
