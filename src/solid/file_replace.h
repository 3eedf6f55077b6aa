// Puts a finished file in the place of the storage file, whose handles are closed, and keeps the
// old one as a backup. The squeeze calls it; the copy of a damaged tail uses its temporary file.
#ifndef K9EREPL_SOLID_FILE_REPLACE_H
#define K9EREPL_SOLID_FILE_REPLACE_H

#include <cassert>
#include <string>
#include <utility>

#include "platform/file.h"
#include "platform/int_types.h"
#include "support/result.h"

namespace k9erepl {

// The names that a squeeze uses. They are made before it begins, so that it cannot fail half-way
// for lack of memory.
struct SqueezeNames {
    // `storagePath` is the "file" setting. A symbolic link keeps its name: its target is replaced,
    // and the other files lie beside the target.
    // Throws std::bad_alloc.
    explicit SqueezeNames(const std::string& storagePath);

    std::string path;         // the storage file itself, links followed
    std::string temporary;    // `path` and ".temporary"
    std::string backup;       // `path` and ".backup"
    std::string backupIndex;  // the index file of the backup: `backup` and "-idx"
};

// A file under construction. The destructor deletes it unless it has taken the place of another
// file.
class TemporaryFile {
  public:
    // Makes no file yet. `path` outlives this object.
    explicit TemporaryFile(const std::string& path) : m_path(path) {}
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    // Makes the file, which must not exist, with the owner and the permissions of the file `model`.
    // Errors, logged: RC_SYSTEM_ERROR; a file that was there before stays.
    [[nodiscard]] ResultCode Create(const std::string& model);
    // The open file, for writing it.
    platform::File& Get() { return m_file; }
    void Close() { m_file.Close(); }
    // Gives away the open file, to be kept beyond the end of this object.
    // REQUIRES: the file is open.
    platform::File TakeFile() {
        assert(m_file.IsOpen());
        return std::move(m_file);
    }
    // To be called when the file has got another name: the destructor then deletes nothing.
    // REQUIRES: Create made the file.
    void Release() {
        assert(m_created);
        m_created = false;
    }

  private:
    const std::string& m_path;
    platform::File m_file;
    bool m_created = false;  // the destructor has a file to delete
};

// Both give the temporary file the storage's name, and flush the directory. BackupAndRename also
// keeps the old file under the backup's name, in place of an older backup, whose index file is
// deleted.
// Errors, logged: RC_SYSTEM_ERROR. *renamed receives whether the storage's name leads to the new
// file. If it does not, it leads to the old one, and no backup was made, unless taking the backup
// back failed, too, which is logged.
[[nodiscard]] ResultCode BackupAndRename(const SqueezeNames& names, bool* renamed);
[[nodiscard]] ResultCode RenameTemp(const SqueezeNames& names, bool* renamed);

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_FILE_REPLACE_H
