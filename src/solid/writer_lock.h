// The lock that keeps a storage file to one writer, from its opening to its closing. The storage
// file object takes it for as long as it writes; Create and Delete for as long as they work.
#ifndef K9EREPL_SOLID_WRITER_LOCK_H
#define K9EREPL_SOLID_WRITER_LOCK_H

#include <functional>
#include <string>

#include "platform/file.h"
#include "platform/int_types.h"

namespace k9erepl {

// The setting file_lock; *wanted is true without it. Logs nothing when the key is absent.
// RC_INVALID_ARG for anything but yes and no. May throw std::bad_alloc.
[[nodiscard]] u32 ReadFileLock(const char* connStr, bool* wanted);

// What is done about a file system that knows no locks; work goes on in any case.
enum class NoLocks { kWarn, kSilent };

// Locks `file`, which was opened for writing at `path`. Never waits.
// RC_SYSTEM_ERROR, logged, when another writer has the lock, in this process or in another one, or
// when the system fails. RC_OK also where there are no locks; file.IsLocked() tells.
[[nodiscard]] u32 LockForWriting(platform::File& file, const std::string& path, NoLocks noLocks);

// Opens the file at `path` with `open`, which gives it to its argument, and locks it. Opens it
// again when the writer before has put a squeezed file in its place in between: the lock would be
// that of a file that has lost its name. *file is open only with RC_OK.
// Errors: those of `open` and of LockForWriting.
using FileOpener = std::function<u32(platform::File* file)>;
[[nodiscard]] u32 OpenForWriting(const std::string& path, NoLocks noLocks, const FileOpener& open,
                                 platform::File* file);

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_WRITER_LOCK_H
