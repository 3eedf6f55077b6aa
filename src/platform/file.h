// An open file with its own file pointer: the storage file, the writer's second handle on it, the
// index file, temporary copies. One thread at a time.
#ifndef K9EREPL_PLATFORM_FILE_H
#define K9EREPL_PLATFORM_FILE_H

#include "platform/file_identity.h"
#include "platform/file_lock.h"
#include "platform/file_modes.h"
#include "platform/int_types.h"
#include "platform/system_calls.h"

namespace k9erepl::platform {

// Every operation that fails returns false and leaves its cause in LastSystemError().
// Interrupted calls are repeated, and a transfer goes on until it is complete, the file ends or
// the system fails it.
class File {
  public:
    File() = default;
    ~File();
    File(File&& other) noexcept;
    File& operator=(File&& other) noexcept;
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    // Opens `path` and closes what was open before; on failure the file is as it was.
    bool Open(const char* path, const FileOpenRequest& request);
    bool IsOpen() const { return m_file != kInvalidNativeFile; }
    // Closes the file if it is open, and frees its lock. Never repeated after a failure: the handle
    // is gone.
    void Close();

    // Reads up to `size` bytes at the file pointer. *got receives the bytes read, fewer than
    // `size` only at the end of the file; on failure, those read before it.
    bool Read(void* buffer, u32 size, u32* got);
    // Writes `size` bytes at the file pointer. *put receives the bytes written; fewer than `size`
    // only together with a failure.
    bool Write(const void* data, u32 size, u32* put);

    bool Seek(i64 position);  // from the beginning of the file
    bool Tell(i64* position);
    bool SetEnd(i64 size);  // cuts or extends with zeros; moves the pointer anywhere
    bool GetSize(i64* size) const;
    bool FlushToDisk();  // returns when data and size are on the disk
    // Lets the disk begin with bytes that a later FlushToDisk must wait for anyway. Only a hint:
    // nothing is sure before FlushToDisk, which also reports what failed here.
    void StartFlush(i64 position, i64 size);

    // Gives the file the owner, as far as the process may, and the permissions of the file `path`.
    // Does nothing on Windows.
    bool TakeOwnerAndMode(const char* path);

    // Takes the writer's lock, without waiting; the file must be open for writing. Held until the
    // file is closed here, or the process and all children that it has forked meanwhile have ended.
    // The child's copy of this object frees nothing.
    LockResult TryLock();
    bool IsLocked() const { return m_lockedBy != kNoProcess; }

    bool GetIdentity(FileIdentity* identity) const;

    // The system's handle, for log lines only.
    const void* Native() const { return reinterpret_cast<const void*>(m_file); }

  private:
    static constexpr u32 kNoProcess = 0;

    void Unlock();

    NativeFile m_file = kInvalidNativeFile;
    u32 m_lockedBy = kNoProcess;  // the process that took the lock
};

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_FILE_H
