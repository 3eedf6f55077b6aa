// The files that the library makes next to a storage file. A squeeze makes ".temporary", the copy
// until it is complete, and ".backup", the file as it was before. A load makes ".damaged-tail", the
// bytes after damage in the middle of the file. If such a file was left behind, the sentences here
// say what it is and what to do. Used wherever a storage is opened, and by stat, verify and clear.
#ifndef K9EREPL_K9REPL_FILES_BESIDE_H
#define K9EREPL_K9REPL_FILES_BESIDE_H

#include <cstdint>
#include <optional>
#include <string>

namespace k9repl {

// The size in bytes of the file at `path`; empty if there is none.
std::optional<std::uint64_t> FileSize(const std::string& path);

struct FileBeside {
    std::string path;
    std::uint64_t size;  // in bytes
};

// The files next to the storage file at `storagePath`; empty if they do not exist. If that path is
// a symbolic link, they lie next to the link's target.
std::optional<FileBeside> FindTemporary(const std::string& storagePath);
std::optional<FileBeside> FindBackup(const std::string& storagePath);
// Finds ".damaged-tail" only; ".damaged-tail.1" and so on may exist, too.
std::optional<FileBeside> FindDamagedTail(const std::string& storagePath);

// "'data.edb.backup' (1064 bytes)".
std::string Describe(const FileBeside& file);

// A sentence that says that the data is in the backup. Empty unless the storage file is missing and
// a backup exists.
std::string MissingButBackedUp(const std::string& storagePath);

// A sentence that says that a temporary file prevents a squeeze; empty if there is none.
// REQUIRES: the file at `storagePath` was opened as a storage.
std::string TemporaryInTheWay(const std::string& storagePath);

// A sentence that says that the file system has no room for the copy of the revisions from
// `keptFrom` on. Empty if it has room, or if that is not known. A backup needs no room: it is the
// old file under a second name, or renamed.
std::string NoRoomForCopy(const std::string& storagePath, std::int64_t keptFrom);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_FILES_BESIDE_H
