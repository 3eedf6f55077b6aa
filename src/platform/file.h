// An open file with its own file pointer: the storage file, the writer's second handle on it, the
// index file, temporary copies. Used by one thread at a time.
#ifndef K9EREPL_PLATFORM_FILE_H
#define K9EREPL_PLATFORM_FILE_H

#include "platform/file_identity.h"
#include "platform/file_lock.h"
#include "platform/file_modes.h"
#include "platform/int_types.h"
#include "platform/system_calls.h"

namespace k9erepl::platform {

// Every operation that fails returns false and leaves its cause in LastSystemError(). Interrupted
// calls are repeated, and a transfer goes on until it is complete, the file ends or the system
// fails it. Positions and sizes are bytes.
class File {
  public:
    File() = default;
    ~File();
    File(File&& other) noexcept;
    File& operator=(File&& other) noexcept;
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    // Opens `path` and closes what was open before. On failure this object is as it was.
    [[nodiscard]] bool Open(const char* path, const FileOpenRequest& request);
    bool IsOpen() const { return m_file != kInvalidNativeFile; }
    // Closes the file if it is open, and frees its lock. A close that fails is not repeated and not
    // reported: the handle is gone either way.
    void Close();

    // Reads up to `size` bytes at the file pointer. *got receives the bytes read, fewer than
    // `size` only at the end of the file; on failure, those read before it.
    [[nodiscard]] bool Read(void* buffer, u32 size, u32* got);
    // Writes `size` bytes at the file pointer. *put receives the bytes written; fewer than `size`
    // only together with a failure.
    [[nodiscard]] bool Write(const void* data, u32 size, u32* put);

    [[nodiscard]] bool Seek(i64 position);  // from the beginning of the file
    [[nodiscard]] bool Tell(i64* position);
    // Cuts the file, or extends it with zeros. Afterwards the pointer may stand anywhere.
    [[nodiscard]] bool SetEnd(i64 size);
    [[nodiscard]] bool GetSize(i64* size) const;
    // Returns when everything written and the size of the file are on the disk. After a failure the
    // system may have dropped what it could not write: write it again before the next call.
    [[nodiscard]] bool FlushToDisk();
    // Lets the disk begin with bytes that a later FlushToDisk must wait for anyway. Only a hint:
    // nothing is certain before FlushToDisk, which also reports what failed here.
    void StartFlush(i64 position, i64 size);

    // Gives this file the owner, as far as the process may, and the permissions of the file `path`.
    // Does nothing on Windows, where a file has its rights from its folder.
    [[nodiscard]] bool TakeOwnerAndMode(const char* path);

    // Takes the writer's lock (file_lock.h) without waiting. The lock is held until the file is
    // closed here, or until the process and all children that it has forked meanwhile have ended. A
    // child's copy of this object frees nothing.
    // REQUIRES: the file is open for writing and not locked.
    [[nodiscard]] LockResult TryLock();
    bool IsLocked() const { return m_lockedBy != kNoProcess; }

    // Writes which file this is, whatever its names are.
    [[nodiscard]] bool GetIdentity(FileIdentity* identity) const;

    // The system's handle, for log lines only.
    const void* Native() const { return reinterpret_cast<const void*>(m_file); }

  private:
    static constexpr u32 kNoProcess = 0;

    // Does nothing unless this process took the lock.
    void Unlock();

    NativeFile m_file = kInvalidNativeFile;  // kInvalidNativeFile when none is open
    u32 m_lockedBy = kNoProcess;             // the process that took the lock; kNoProcess: none
};

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_FILE_H
