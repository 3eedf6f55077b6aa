// Files by their path: their size, and those that the library makes beside a storage file. Of a
// squeeze: ".temporary", the copy while it is not yet complete, and ".backup", the file as it was
// before. Of a load:
// ".damaged-tail", what lay behind a damage. Where one was left behind, these sentences say what it
// is and what to do. Used wherever a storage is opened, by stat and by clear.
#ifndef K9EREPL_K9REPL_FILES_BESIDE_H
#define K9EREPL_K9REPL_FILES_BESIDE_H

#include <cstdint>
#include <optional>
#include <string>

namespace k9repl {

// The size in bytes of the file at `path`, when there is one.
std::optional<std::uint64_t> FileSize(const std::string& path);

struct FileBeside {
    std::string path;
    std::uint64_t size;  // in bytes
};

// The files beside the storage file at `storagePath`, when they are there. Where that path is a
// symbolic link they lie beside what it leads to.
std::optional<FileBeside> FindTemporary(const std::string& storagePath);
std::optional<FileBeside> FindBackup(const std::string& storagePath);
// The first one; ".damaged-tail.1" and so on may lie beside it.
std::optional<FileBeside> FindDamagedTail(const std::string& storagePath);

// "'data.edb.backup' (1064 bytes)".
std::string Describe(const FileBeside& file);

// A sentence that the data is in the backup. Empty unless the storage file is missing while a
// backup is there.
std::string MissingButBackedUp(const std::string& storagePath);

// A sentence that a temporary file is in the way of a squeeze; empty when there is none.
// REQUIRES: the file at `storagePath` was opened as a storage.
std::string TemporaryInTheWay(const std::string& storagePath);

// A sentence that the file system has no room for the copy of the revisions from `keptFrom` on.
// Empty when it has, or when that is not known. A backup needs no room: it is the old file under a
// second name, or moved.
std::string NoRoomForCopy(const std::string& storagePath, std::int64_t keptFrom);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_FILES_BESIDE_H
