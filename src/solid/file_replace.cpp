// Replacing the storage file by its squeezed copy; see the header.
#include "solid/file_replace.h"

#include <k9erepl/storage.h>

#include <cassert>
#include <new>

#include "index/index_file.h"
#include "platform/file_names.h"
#include "platform/system_error.h"
#include "support/durable_names.h"
#include "support/log.h"

namespace k9erepl {

using platform::LastSystemError;
using platform::SystemErrorKind;

SqueezeNames::SqueezeNames(const std::string& storagePath)
    : path(platform::FollowLink(storagePath)),
      temporary(path + ".temporary"),
      backup(path + ".backup"),
      backupIndex(backup + "-idx") {}

TemporaryFile::~TemporaryFile() {
    if (!m_created) {
        return;
    }
    m_file.Close();
    if (!platform::RemoveFile(m_path)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                       "Cannot delete temporary file; sys-err %r; tempfile: '%s'",
                       LastSystemError(), m_path.c_str());
    }
}

ResultCode TemporaryFile::Create(const std::string& model) {
    assert(!m_created && !m_file.IsOpen());
    LOG_INFO(kLogStorage, "Creating temp file '%s'", m_path.c_str());
    m_created = m_file.Open(m_path.c_str(), {.access = platform::FileAccess::kWrite,
                                             .disposition = platform::FileDisposition::kCreateNew,
                                             .sequentialScan = true,
                                             .ownerOnly = true});
    if (!m_created || !m_file.TakeOwnerAndMode(model.c_str())) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Cannot create temporary file '%s';sys-err %r",
                       m_path.c_str(), LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    return RC_OK;
}

namespace {

enum class BackupKind { kNone, kLinked, kMoved };

// Once names have begun to change, a lack of memory must not throw: it is a failure like any other,
// after which the names are put back.
template <typename Action>
bool WithoutThrowing(Action action) {
    try {
        return action();
    } catch (const std::bad_alloc&) {
        platform::SetLastSystemError(platform::SystemErrorOf(SystemErrorKind::kOutOfMemory));
        return false;
    }
}

bool Move(const std::string& from, const std::string& to) {
    return WithoutThrowing([&] { return platform::MoveFileReplacing(from, to); });
}

bool FlushNames(const std::string& path) {
    return WithoutThrowing([&] { return FlushNamesBeside(path); });
}

// Deletes the index file of an older backup. A storage file that has this name is no index file and
// stays.
void DeleteBackupIndex(const std::string& path) {
    if (IsStorageFile(path)) {
        LOG_WARNING(kLogStorage, "Index file of the backup is a storage file, it stays;path '%s'",
                    path.c_str());
        return;
    }
    (void)platform::RemoveFile(path);  // dropped: mostly there is none
}

bool LinkBackup(const SqueezeNames& names) {
    if (platform::LinkFile(names.path, names.backup)) {
        return true;
    }
    return platform::LastSystemErrorIs(SystemErrorKind::kAlreadyExists) &&
           platform::RemoveFile(names.backup) && platform::LinkFile(names.path, names.backup);
}

// A second name for the file leaves the storage's name in place. The file is moved only on file
// systems that have no second names.
BackupKind MakeBackup(const SqueezeNames& names) {
    BackupKind kind = BackupKind::kNone;
    if (LinkBackup(names)) {
        kind = BackupKind::kLinked;
    } else if (platform::LastSystemErrorIs(SystemErrorKind::kNotSupported) &&
               Move(names.path, names.backup)) {
        kind = BackupKind::kMoved;
    }
    if (kind == BackupKind::kNone) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                       "Cannot create backup file; sys-err: %r; of file: '%s'", LastSystemError(),
                       names.path.c_str());
    }
    return kind;
}

[[nodiscard]] ResultCode FlushDirectoryOf(const std::string& path) {
    if (!FlushNames(path)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                       "Cannot flush directory of file '%s';sys-err %r", path.c_str(),
                       LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    return RC_OK;
}

// A backup that is only a second name of the storage file would go on changing with it. A storage
// file that has only the backup's name would not be found, and perhaps a new, empty one be made.
void UndoBackup(const SqueezeNames& names, BackupKind kind) {
    assert(kind != BackupKind::kNone);
    if (kind == BackupKind::kMoved) {
        if (!Move(names.backup, names.path)) {
            LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                           "Cannot move backup back; sys-err: %r; storage data is in file: '%s'",
                           LastSystemError(), names.backup.c_str());
        }
        FlushNames(names.path);
    } else if (!platform::RemoveFile(names.backup)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                       "Cannot delete backup; sys-err: %r; it is still the storage file: '%s'",
                       LastSystemError(), names.backup.c_str());
    }
}

}  // namespace

ResultCode RenameTemp(const SqueezeNames& names, bool* renamed) {
    assert(renamed != nullptr && names.temporary != names.path);
    *renamed = Move(names.temporary, names.path);
    if (!*renamed) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                       "Cannot rename file; sys-err: %r; tempfile: '%s'", LastSystemError(),
                       names.temporary.c_str());
        return RC_SYSTEM_ERROR;
    }
    return FlushDirectoryOf(names.path);
}

ResultCode BackupAndRename(const SqueezeNames& names, bool* renamed) {
    assert(renamed != nullptr && names.backup != names.path);
    *renamed = false;
    DeleteBackupIndex(names.backupIndex);
    const BackupKind kind = MakeBackup(names);
    if (kind == BackupKind::kNone) {
        return RC_SYSTEM_ERROR;
    }
    // Before the renaming, so that no crash leaves the new file without the backup. If the file was
    // moved, RenameTemp flushes both changes of names at once.
    ResultCode rc = kind == BackupKind::kLinked ? FlushDirectoryOf(names.backup) : RC_OK;
    if (rc == RC_OK) {
        rc = RenameTemp(names, renamed);
    }
    if (!*renamed) {
        UndoBackup(names, kind);
    }
    return rc;
}

}  // namespace k9erepl
