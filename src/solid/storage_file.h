// The open storage file: its handles, the state that its writer shares, its header. The parts that
// load, read, write and clear it take a reference to it; solid_storage.h puts them together.
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
#include "writers/storage_file_state.h"
#include "writers/storage_writer.h"

namespace k9erepl {

// What a storage file is opened for.
enum class FileUse {
    kWrite,     // with the writer's lock, which keeps other writers away
    kNoLock,    // to be read for a moment, as by a load into a storage without a file
    kReadOnly,  // to be read while another may write it
};

// Two handles are open on the file: this object's, for reading and for the header, and the
// writer's. A file that is opened read-only has no writer, and one handle that cannot write.
//
// Results are result codes; RC_NO_WRITER when no file is open. Failures are logged where they are
// found. One thread at a time.
class StorageFile {
  public:
    StorageFile() = default;
    StorageFile(const StorageFile&) = delete;
    StorageFile& operator=(const StorageFile&) = delete;

    // --- Life. As the functions of CSolidStorage with these names; may throw std::bad_alloc.

    // REQUIRES: no file is open. After a failure: Close.
    [[nodiscard]] u32 Open(const std::string& path, const char* connStr, FileUse use);
    [[nodiscard]] bool Close();
    void LeaveToParent();
    bool IsOpen() const { return m_file.IsOpen(); }
    bool IsReadOnly() const { return IsOpen() && m_writer == nullptr; }
    bool HasWriter() const { return m_writer != nullptr; }
    const std::string& Path() const { return m_state.path; }

    // --- What the parts share

    StorageFileState& State() { return m_state; }
    const StorageFileState& State() const { return m_state; }
    // REQUIRES: HasWriter().
    StorageWriter& Writer() const {
        assert(HasWriter());
        return *m_writer;
    }
    // The handle for reading, with its pointer.
    platform::TrackedFile& Reader() { return m_file; }

    // The file's length as last known, in bytes; 0 when closed. Never below the written data.
    i64 FileSize() const;
    // Asks the system, and makes that the length last known.
    [[nodiscard]] u32 UpdateFileSize(i64* size);

    // Reads `size` bytes at `offset`. RC_SHORT_READ, RC_SYSTEM_ERROR, logged.
    [[nodiscard]] u32 ReadAt(i64 offset, void* buffer, u32 size);

    // Waits until everything queued is written. RC_NO_WRITER also when read-only.
    [[nodiscard]] u32 CompleteAsyncTasks();

    // To be called when bytes of the file may have changed: what was read before is stale.
    void InvalidateReads() { ++m_readGeneration; }
    // Changes with each InvalidateReads.
    u64 ReadGeneration() const { return m_readGeneration; }

    // Whether a load or a truncation has placed the write position; what was committed may follow
    // it. False again when a reader finds another content.
    bool InUse() const { return m_inUse; }
    void SetInUse(bool inUse) { m_inUse = inUse; }

    // Changes when the file's items may lie elsewhere than before: a load, a truncation, a squeeze.
    const u64& LayoutGeneration() const { return m_layoutGeneration; }
    void ItemsMoved() { ++m_layoutGeneration; }

    // The revision that was last handed to the writer; 0 when none was since the last load,
    // rollback or truncation. In the middle of a flush it is above the last committed revision: the
    // flush's records are in the file, its commit block may not be.
    i64 LastWrittenRev() const { return m_lastWrittenRev; }
    void SetLastWrittenRev(i64 rev) { m_lastWrittenRev = rev; }

    // --- The header. It is read whole, changed and written back whole, so its reserved bytes stay
    // as they are. Everything queued is written before; the file pointer is put back.

    [[nodiscard]] u32 ReadHeader(TFileHeader* header);
    [[nodiscard]] u32 SetLifenum(u32 lifenum);
    [[nodiscard]] u32 SetClearOldRev(i64 rev);

    // --- Another file in this one's place, for the squeeze

    bool UsesLock() const { return m_fileLock; }
    // Closes the handle for reading; gives away the handle that has the writer's lock, if any has.
    platform::File CloseReader();
    // Keeps the handle with the new file's lock.
    void HoldLock(platform::File&& holder) { m_lockHolder = std::move(holder); }
    // Opens the file that `path` leads to now, with its written data ending at `writePos`. After a
    // failure every handle is closed.
    [[nodiscard]] u32 Reopen(const std::string& path, i64 writePos);

    // --- Another reading handle on the same path, beside a writer

    // REQUIRES: IsReadOnly().
    void TakeReader(platform::TrackedFile&& reader, i64 size);

  private:
    [[nodiscard]] u32 MakeWriter(const char* connStr);
    [[nodiscard]] u32 OpenHandles(const std::string& path, i64 writePos);
    template <typename Change>
    [[nodiscard]] u32 UpdateHeader(Change change);
    template <typename Action>
    [[nodiscard]] u32 WithHeaderPosition(Action action);

    // Given up to a writing thread that could not be ended.
    std::unique_ptr<StorageFileState> m_ownState = std::make_unique<StorageFileState>();
    // --- Set by Open, then constant until Close
    StorageFileState& m_state = *m_ownState;
    std::unique_ptr<StorageWriter> m_writer;  // null when closed or read-only
    bool m_fileLock = true;  // other writers are kept away, where the file system has locks

    platform::TrackedFile m_file;  // also has the writer's lock, unless m_lockHolder is open
    // After a squeeze: the handle that made the new file, and locked it before it got its name.
    platform::File m_lockHolder;

    bool m_inUse = false;
    i64 m_lastWrittenRev = 0;
    u64 m_layoutGeneration = 0;
    u64 m_readGeneration = 0;
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_STORAGE_FILE_H
