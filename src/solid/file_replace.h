// Putting a finished file in the place of the storage file, whose handles are closed, and keeping
// the old one as a backup. The storage file's squeeze calls it.
#ifndef K9EREPL_SOLID_FILE_REPLACE_H
#define K9EREPL_SOLID_FILE_REPLACE_H

#include <cassert>
#include <string>
#include <utility>

#include "platform/file.h"
#include "platform/int_types.h"

namespace k9erepl {

// The names that a squeeze uses, made ahead so that nothing fails for them half-way.
struct SqueezeNames {
    // Throws std::bad_alloc. A symbolic link keeps its name: its target is replaced, and the other
    // files lie beside the target.
    explicit SqueezeNames(const std::string& storagePath);

    std::string path;
    std::string temporary;
    std::string backup;
    std::string backupIndex;
};

// The temporary file: deleted unless it has taken the place of another file.
class TemporaryFile {
  public:
    explicit TemporaryFile(const std::string& path) : m_path(path) {}
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    // Makes the file, which must not exist, with the owner and the permissions of `model`.
    // RC_SYSTEM_ERROR; a file that stands there stays.
    [[nodiscard]] u32 Create(const std::string& model);
    platform::File& Get() { return m_file; }
    void Close() { m_file.Close(); }
    // The open file, to be kept beyond the end of this object.
    platform::File TakeFile() {
        assert(m_file.IsOpen());
        return std::move(m_file);
    }
    // It has another name now.
    void Release() {
        assert(m_created);
        m_created = false;
    }

  private:
    const std::string& m_path;
    platform::File m_file;
    bool m_created = false;
};

// Both give the temporary file the storage's name, durably; BackupAndRename keeps the old file
// under the backup's name, in place of an older backup, whose index file is deleted.
// Errors: RC_SYSTEM_ERROR. *renamed tells whether the storage's name leads to the new file; if it
// does not, it leads to the old one, and no backup was made.
[[nodiscard]] u32 BackupAndRename(const SqueezeNames& names, bool* renamed);
[[nodiscard]] u32 RenameTemp(const SqueezeNames& names, bool* renamed);

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_FILE_REPLACE_H
