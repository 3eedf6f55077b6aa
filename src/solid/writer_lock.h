// The lock that lets only one writer have a storage file, from opening it to closing it. The
// storage file object holds it while the file is open for writing; Create and Delete hold it while
// they work.
#ifndef K9EREPL_SOLID_WRITER_LOCK_H
#define K9EREPL_SOLID_WRITER_LOCK_H

#include <functional>
#include <string>

#include "platform/file.h"
#include "platform/int_types.h"
#include "support/result.h"

namespace k9erepl {

// *wanted receives the setting file_lock; it is true without the setting. Logs nothing when the key
// is absent, so existing logs do not change.
// Errors, logged: RC_INVALID_ARG for anything but yes and no.
// May throw std::bad_alloc.
[[nodiscard]] ResultCode ReadFileLock(const char* connStr, bool* wanted);

// What is done when the file system has no locks: log a warning, or nothing. Work goes on either
// way.
enum class NoLocks { kWarn, kSilent };

// Locks `file`, which was opened for writing at `path`. Never waits. RC_OK also where there are no
// locks; file.IsLocked() tells.
// Errors, logged: RC_SYSTEM_ERROR when another writer has the lock, in this process or in another
// one, or when the system fails.
[[nodiscard]] ResultCode LockForWriting(platform::File& file, const std::string& path,
                                        NoLocks noLocks);

// Opens the file at `path` with `open`, which gives it to its argument, and locks it. Opens it
// again if another writer has put a squeezed file in its place in between: the lock would be that
// of a file that has lost its name. *file is open only with RC_OK.
// Errors: those of `open` and of LockForWriting.
using FileOpener = std::function<u32(platform::File* file)>;
[[nodiscard]] ResultCode OpenForWriting(const std::string& path, NoLocks noLocks,
                                        const FileOpener& open, platform::File* file);

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_WRITER_LOCK_H
