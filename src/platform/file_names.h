// Operations on file names: deleting, moving, making directories. Used by the storage file's
// administration and squeeze, and by the index file. An operation that fails returns false, with
// LastSystemError(). Paths are passed to the operating system as they stand.
#ifndef K9EREPL_PLATFORM_FILE_NAMES_H
#define K9EREPL_PLATFORM_FILE_NAMES_H

#include <string>

#include "platform/file_identity.h"
#include "platform/int_types.h"

namespace k9erepl::platform {

// Tells whether `c` separates directories in a path of this operating system: "/", and on Windows
// also the backslash.
bool IsPathSeparator(char c);

// Tells whether this operating system takes two names in one folder, or two relative paths, for the
// same. On Windows upper and lower case do not count.
bool SameName(const std::string& one, const std::string& other);

// Deletes the file `path`; fails with kNotFound when there is none.
[[nodiscard]] bool RemoveFile(const std::string& path);

// Gives `from` the name `to`, replacing a file that stands there. Across volumes it copies to a new
// file beside `to`, flushes that, renames it, flushes the directory if the process may read it, and
// deletes `from`; `to` is whole at any time. Within one volume the caller flushes the directory.
[[nodiscard]] bool MoveFileReplacing(const std::string& from, const std::string& to);

// Gives the file `existing` one more name; `name` must be free. kNotSupported where the system or
// the file system has no hard links.
[[nodiscard]] bool LinkFile(const std::string& existing, const std::string& name);

// Makes every missing directory on the way to the file `path`, the outermost first. Existing ones
// are no error; true also when `path` has no directory part. Flushes the directory of each new one,
// if the process may read that.
[[nodiscard]] bool MakeParentDirectories(const std::string& path);

// The identity of the file or folder that `path` leads to, links followed.
[[nodiscard]] bool GetIdentity(const std::string& path, FileIdentity* identity);

// True when a file that is open may be renamed, or have its name taken over by another file: on
// POSIX systems. A lock can then stay with a file while its name changes.
extern const bool kOpenFilesCanBeRenamed;

// Makes a change of names in the directory of `path` durable: the creation, renaming or deletion of
// that file. Fails with kAccessDenied when the process may not read the directory. Does nothing on
// Windows.
[[nodiscard]] bool FlushParentDirectory(const std::string& path);

// Returns the path that opening `path` leads to: the target where `path` is a symbolic link, else
// `path`. On Windows always `path`.
std::string FollowLink(const std::string& path);

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_FILE_NAMES_H
