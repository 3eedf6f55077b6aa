// An open file that remembers where its pointer stands, so that reading on costs no seek. The
// storage file reads through one; the load scan and the read cache share it.
#ifndef K9EREPL_PLATFORM_TRACKED_FILE_H
#define K9EREPL_PLATFORM_TRACKED_FILE_H

#include "platform/file.h"
#include "platform/int_types.h"

namespace k9erepl::platform {

// As File: an operation that fails returns false and leaves its cause in LastSystemError(); one
// thread at a time.
class TrackedFile {
  public:
    // Of Position(): a failed read may have moved the pointer, or Forget was called.
    static constexpr i64 kUnknownPosition = -1;

    TrackedFile() = default;
    // Takes an open file whose pointer stands at `position`, in bytes from the beginning.
    TrackedFile(File&& file, i64 position);

    bool IsOpen() const { return m_file.IsOpen(); }
    bool IsLocked() const { return m_file.IsLocked(); }
    void Close() { m_file.Close(); }
    // Gives the open file away.
    File Release();

    i64 Position() const { return m_position; }

    // Moves the pointer, without a system call where it stands there already. A failure leaves
    // Position() as it was.
    bool Seek(i64 position) { return m_position == position || MoveTo(position); }
    // As File::Read, at the pointer. REQUIRES: Position() is known.
    bool Read(void* buffer, u32 size, u32* got);

    // The next Seek asks the system, wherever it goes.
    void Forget() { m_position = kUnknownPosition; }

    // The file itself, for what does not move the pointer. A caller that moves it puts it back, or
    // calls Forget.
    File& Raw() { return m_file; }
    const File& Raw() const { return m_file; }

  private:
    bool MoveTo(i64 position);

    File m_file;
    i64 m_position = 0;  // bytes from the beginning, or kUnknownPosition
};

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_TRACKED_FILE_H
