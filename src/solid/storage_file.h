// The open storage file: its handles, the state that it shares with its writer, its header. The
// objects that load, read, write and clear the file refer to it; solid_storage.h puts them
// together.
#ifndef K9EREPL_SOLID_STORAGE_FILE_H
#define K9EREPL_SOLID_STORAGE_FILE_H

#include <k9erepl/storage.h>

#include <cassert>
#include <memory>
#include <string>
#include <utility>

#include "format/storage_file_format.h"
#include "platform/file.h"
#include "platform/int_types.h"
#include "platform/tracked_file.h"
#include "support/result.h"
#include "writers/storage_file_state.h"
#include "writers/storage_writer.h"

namespace k9erepl {

// What a storage file is opened for.
enum class FileUse {
    kWrite,     // with the writer's lock (setting file_lock), which keeps other writers away
    kNoLock,    // to be read for a moment, as by a load into a storage without a file
    kReadOnly,  // to be read while another process may write it
};

// Two handles are open on the file: this object's own, for reading and for the header, and the
// writer's. A file that is opened read-only has no writer, and one handle that cannot write.
//
// Results are result codes; RC_NO_WRITER when no file is open. Failures are logged where they are
// found. One thread at a time, under the storage's lock; the writer's thread uses only the state.
class StorageFile {
  public:
    StorageFile() = default;
    StorageFile(const StorageFile&) = delete;
    StorageFile& operator=(const StorageFile&) = delete;

    // --- Life. As the functions of CSolidStorage with these names; may throw std::bad_alloc.

    // REQUIRES: no file is open. After a failure: Close.
    [[nodiscard]] ResultCode Open(const std::string& path, const char* connStr, FileUse use);
    // False when the writing thread could not be ended: the writer and the state then stay
    // allocated.
    [[nodiscard]] bool Close();
    void LeaveToParent();
    bool IsOpen() const { return m_file.IsOpen(); }
    // False when the file is closed, too.
    bool IsReadOnly() const { return IsOpen() && m_writer == nullptr; }
    bool HasWriter() const { return m_writer != nullptr; }
    // The path as it was opened, links not followed; empty when closed.
    const std::string& Path() const { return m_state.path; }

    // --- What the objects around it share

    // The values that the writer reads and updates, perhaps on its own thread.
    StorageFileState& State() { return m_state; }
    const StorageFileState& State() const { return m_state; }
    // REQUIRES: HasWriter().
    StorageWriter& Writer() const {
        assert(HasWriter());
        return *m_writer;
    }
    // The handle for reading, which knows where its pointer is.
    platform::TrackedFile& Reader() { return m_file; }

    // The file's length in bytes, as last known; 0 when closed. Never below the written data.
    i64 FileSize() const;
    // Asks the system for the length in bytes, and makes that the length last known.
    // REQUIRES: the file is open.
    [[nodiscard]] ResultCode UpdateFileSize(i64* size);

    // Reads `size` bytes at the file offset `offset`.
    // Errors, logged: RC_SHORT_READ when the file ends before, RC_SYSTEM_ERROR.
    // REQUIRES: the file is open; offset is not negative.
    [[nodiscard]] ResultCode ReadAt(i64 offset, void* buffer, u32 size);

    // Waits until everything queued is written. RC_NO_WRITER also when the file is read-only.
    [[nodiscard]] ResultCode CompleteAsyncTasks();

    // To be called when bytes of the file may have changed: what was read before must not be used
    // any more.
    void InvalidateReads() { ++m_readGeneration; }
    // A number that changes with each InvalidateReads; a reader that keeps bytes compares it.
    u64 ReadGeneration() const { return m_readGeneration; }

    // True when a load or a truncation has placed the write position; what was committed since may
    // follow it. False again when a read-only storage finds another content.
    bool InUse() const { return m_inUse; }
    void SetInUse(bool inUse) { m_inUse = inUse; }

    // A number that changes when the file's items may lie elsewhere than before: after a load, a
    // truncation or a squeeze. A reference, so that a scan sees changes that its callbacks make.
    const u64& LayoutGeneration() const { return m_layoutGeneration; }
    void ItemsMoved() { ++m_layoutGeneration; }

    // The revision that was last handed to the writer; 0 when none was since the last load,
    // rollback or truncation. In the middle of a flush it is above the last committed revision: the
    // flush's records are in the file, its commit block may not be.
    i64 LastWrittenRev() const { return m_lastWrittenRev; }
    void SetLastWrittenRev(i64 rev) { m_lastWrittenRev = rev; }

    // --- The header. It is read whole, changed and written back whole, so its reserved bytes stay
    // as they are. Everything queued is written before; the file pointer is put back.

    [[nodiscard]] ResultCode ReadHeader(TFileHeader* header);
    [[nodiscard]] ResultCode SetLifenum(u32 lifenum);
    [[nodiscard]] ResultCode SetClearOldRev(i64 rev);

    // --- Another file in this one's place, for the squeeze

    // True when other writers are kept away: the file is open for writing, and the setting
    // file_lock does not say no.
    bool UsesLock() const { return m_fileLock; }
    // Closes the handle for reading, unless that one has the writer's lock. Returns the handle with
    // the lock, still open, or a closed one if there is no lock.
    platform::File CloseReader();
    // Keeps `holder`, a handle with the new file's lock, as long as the file is open.
    void HoldLock(platform::File&& holder) { m_lockHolder = std::move(holder); }
    // Opens the file that `path` leads to now, with its written data ending at `writePos`. After a
    // failure every handle is closed.
    [[nodiscard]] ResultCode Reopen(const std::string& path, i64 writePos);

    // --- Another reading handle on the same path, beside a writer

    // Puts `reader` in place of the handle for reading; `size` is its file's length in bytes.
    // REQUIRES: IsReadOnly().
    void TakeReader(platform::TrackedFile&& reader, i64 size);

  private:
    // Makes the writer that the settings of `connStr` ask for.
    [[nodiscard]] ResultCode MakeWriter(const char* connStr);
    // The steps of Reopen; leaves open what it has opened when it fails.
    [[nodiscard]] ResultCode OpenHandles(const std::string& path, i64 writePos);
    // Reads the header, lets `change` change it, and writes it back.
    template <typename Change>
    [[nodiscard]] ResultCode UpdateHeader(Change change);
    // Runs `action` on the file while nothing is being written, and puts the file pointer back.
    template <typename Action>
    [[nodiscard]] ResultCode WithHeaderPosition(Action action);

    // Never null, unless the state was given up to a writing thread that could not be ended.
    std::unique_ptr<StorageFileState> m_ownState = std::make_unique<StorageFileState>();
    // --- Set by Open, then constant until Close
    StorageFileState& m_state = *m_ownState;
    std::unique_ptr<StorageWriter> m_writer;  // null when closed or read-only
    // Other writers are kept away (setting file_lock), where the file system has locks.
    bool m_fileLock = true;

    // The handle for reading and for the header; it also has the writer's lock, unless m_lockHolder
    // is open. Closed when no file is open.
    platform::TrackedFile m_file;
    // After a squeeze: the handle that made the new file and locked it before it got its name. Else
    // closed.
    platform::File m_lockHolder;

    bool m_inUse = false;        // see InUse()
    i64 m_lastWrittenRev = 0;    // see LastWrittenRev(); 0: none
    u64 m_layoutGeneration = 0;  // see LayoutGeneration()
    u64 m_readGeneration = 0;    // see ReadGeneration()
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_STORAGE_FILE_H
