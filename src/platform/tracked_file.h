// An open file that remembers where its pointer stands, so that reading on needs no seek. The
// storage file reads through one, which the load scan and the read cache share.
#ifndef K9EREPL_PLATFORM_TRACKED_FILE_H
#define K9EREPL_PLATFORM_TRACKED_FILE_H

#include "platform/file.h"
#include "platform/int_types.h"

namespace k9erepl::platform {

// As with File, an operation that fails returns false and leaves its cause in LastSystemError(),
// and one thread at a time uses it. Positions are bytes from the beginning of the file.
class TrackedFile {
  public:
    // What Position() answers after a failed read, which may have moved the pointer, or after
    // Forget.
    static constexpr i64 kUnknownPosition = -1;

    TrackedFile() = default;
    // Takes over an open file whose pointer stands at `position`.
    TrackedFile(File&& file, i64 position);

    bool IsOpen() const { return m_file.IsOpen(); }
    bool IsLocked() const { return m_file.IsLocked(); }
    void Close() { m_file.Close(); }
    // Hands the open file to the caller; this object then has none.
    File Release();

    i64 Position() const { return m_position; }

    // Moves the pointer, without a system call if it stands there already. A failure leaves
    // Position() as it was.
    [[nodiscard]] bool Seek(i64 position) { return m_position == position || MoveTo(position); }
    // As File::Read, at the pointer, which moves on by *got. REQUIRES: Position() is known.
    [[nodiscard]] bool Read(void* buffer, u32 size, u32* got);

    // Makes the next Seek ask the system, wherever it goes.
    void Forget() { m_position = kUnknownPosition; }

    // The file itself, for calls that do not move its pointer. A caller that moves it must move it
    // back or call Forget.
    File& Raw() { return m_file; }
    const File& Raw() const { return m_file; }

  private:
    [[nodiscard]] bool MoveTo(i64 position);

    File m_file;
    // Where the pointer stands, or kUnknownPosition.
    i64 m_position = 0;
};

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_TRACKED_FILE_H
