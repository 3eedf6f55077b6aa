// Creating, deleting and checking storage files; see the header.
#include "solid/storage_file_admin.h"

#include <k9erepl/storage.h>

#include <cassert>
#include <cstring>

#include "platform/clock.h"
#include "platform/file_names.h"
#include "platform/memory.h"
#include "platform/system_error.h"
#include "solid/file_access.h"
#include "solid/storage_names.h"
#include "solid/writer_lock.h"
#include "support/durable_names.h"
#include "support/log.h"
#include "support/memory_path.h"
#include "support/params.h"

namespace k9erepl {

using platform::File;
using platform::FileDisposition;
using platform::LastSystemError;

namespace {

[[nodiscard]] ResultCode GetPath(const char* connStr, std::string* path) {
    GetParam(connStr, "file", *path);
    ResultCode rc = RC_OK;
    if (path->empty()) {
        rc = RC_INVALID_ARG;
    } else if (path->size() >= kMaxPathSize) {
        rc = RC_PATH_TOO_LONG;
    }
    if (rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to get file parameter value;conn-str %s", connStr);
    }
    return rc;
}

bool OpenAs(const std::string& path, FileDisposition disposition, File* file) {
    return file->Open(path.c_str(), {.disposition = disposition});
}

// Opens or creates the file as the flags say; *existed tells that there is nothing to initialise.
bool OpenUnlessThere(const std::string& path, u32 flags, File* file, bool* existed) {
    *existed = false;
    if ((flags & K9EREPL_CREATE_KEEP_EXISTING) != 0) {
        *existed = OpenAs(path, FileDisposition::kOpenExisting, file);
        // Never emptied: a file that exists but could not be opened for the moment is an error.
        return *existed || (platform::LastSystemErrorIs(platform::SystemErrorKind::kNotFound) &&
                            OpenAs(platform::FollowLink(path), FileDisposition::kCreateNew, file));
    }
    return OpenAs(path, FileDisposition::kCreateNew, file);
}

[[nodiscard]] ResultCode CannotCreate(const std::string& path) {
    LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Failed to create file '%s';sys-err %r",
                   path.c_str(), LastSystemError());
    return RC_SYSTEM_ERROR;
}

// Empties the file or makes it, and has its index file deleted. A file that another writer has is
// left as it is.
[[nodiscard]] ResultCode OpenToReplace(const char* connStr, IndexRemover removeIndex,
                                       const std::string& path, bool lock, File* file,
                                       bool* existed) {
    bool opened = false;
    const auto open = [&](File* found) {
        opened = OpenUnlessThere(path, K9EREPL_CREATE_KEEP_EXISTING, found, existed);
        if (!opened && platform::LastSystemErrorIs(platform::SystemErrorKind::kAlreadyExists)) {
            // The file appeared after the first try.
            *existed = opened = OpenAs(path, FileDisposition::kOpenExisting, found);
        }
        return opened ? ResultCode{RC_OK} : u32{RC_SYSTEM_ERROR};
    };
    const ResultCode rc = lock ? OpenForWriting(path, NoLocks::kSilent, open, file) : open(file);
    if (rc != RC_OK && opened) {
        return rc;
    }
    const bool emptied = opened && (!*existed || file->SetEnd(0));
    const platform::SystemError error = LastSystemError();
    removeIndex(connStr);
    platform::SetLastSystemError(error);
    return emptied ? ResultCode{RC_OK} : CannotCreate(path);
}

bool Replaces(u32 flags) {
    return (flags & (K9EREPL_CREATE_REPLACE | K9EREPL_CREATE_KEEP_EXISTING)) ==
           K9EREPL_CREATE_REPLACE;
}

// Opens the file as the flags say and locks it; one that is to be replaced is empty then.
[[nodiscard]] ResultCode OpenToCreate(const char* connStr, IndexRemover removeIndex,
                                      const std::string& path, u32 flags, bool lock, File* file,
                                      bool* existed) {
    assert(!file->IsOpen());
    if (Replaces(flags)) {
        return OpenToReplace(connStr, removeIndex, path, lock, file, existed);
    }
    if (!OpenUnlessThere(path, flags, file, existed)) {
        return CannotCreate(path);
    }
    return *existed || !lock ? ResultCode{RC_OK} : LockForWriting(*file, path, NoLocks::kSilent);
}

[[nodiscard]] ResultCode WriteFirstBytes(File& file, const TFileHeader& header,
                                         const TCommitBlock& firstCommit) {
    assert(firstCommit.signature == kCommitSignature);
    const platform::MemoryBuffer bytes = platform::AllocBuffer(kNewFileSize);
    if (bytes == nullptr) {
        LOG_ERROR_CODE(RC_NO_MEMORY, kLogStorage, "Out of memory while writing first %P bytes",
                       std::size_t{kNewFileSize});
        return RC_NO_MEMORY;
    }
    std::memset(bytes.get(), 0, kNewFileSize);
    std::memcpy(bytes.get(), &header, sizeof(header));
    std::memcpy(bytes.get() + kFirstCommitOffset, &firstCommit, sizeof(firstCommit));
    u32 put = 0;
    if (!file.Write(bytes.get(), kNewFileSize, &put)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Cannot write file header to file;sys-err %r",
                       LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    return RC_OK;
}

// A new file that is deleted again unless its creation is finished.
class UnfinishedFile {
  public:
    // `path` is where the file lies, links followed.
    UnfinishedFile(File& file, const std::string& path) : m_file(file), m_path(path) {
        assert(file.IsOpen());
    }
    ~UnfinishedFile() {
        if (!m_finished) {
            Remove();
        }
    }
    UnfinishedFile(const UnfinishedFile&) = delete;
    UnfinishedFile& operator=(const UnfinishedFile&) = delete;

    void Finish() { m_finished = true; }

  private:
    void Remove() {
        if (!platform::kOpenFilesCanBeRenamed) {
            m_file.Close();
        }
        if (!platform::RemoveFile(m_path)) {
            LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                           "Cannot delete file that was not completed;file path '%s',sys-err %r",
                           m_path.c_str(), LastSystemError());
        }
    }

    File& m_file;
    const std::string& m_path;
    bool m_finished = false;
};

// Makes the empty file a storage, on the disk under its name.
[[nodiscard]] ResultCode FillNewFile(const char* connStr, const std::string& path,
                                     const std::string& target, File& file) {
    assert(file.IsOpen() && !path.empty());
    bool given = false;
    i64 initialSize = GetMebibytesParam(connStr, "file_initial_size", &given);
    if (given) {
        LOG_INFO(kLogStorage, "Use %s %I64d", "file_initial_size", initialSize);
    }
    const TCommitBlock firstCommit = NewCommitBlock(platform::TimeStampCounter(), 0);
    if (ResultCode rc = InitNewFile(file, NewFileHeader(), firstCommit, &initialSize);
        rc != RC_OK) {
        return rc;
    }
    // Without a durable name the durable bytes would be lost in a crash.
    if (!FlushNamesBeside(target)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                       "Cannot flush directory of file '%s';sys-err %r", path.c_str(),
                       LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    return RC_OK;
}

[[nodiscard]] ResultCode CheckHeader(const TFileHeader& header, const std::string& path) {
    if (std::memcmp(header.signature, kHeaderSignature, kHeaderSignatureSize) != 0) {
        LOG_ERROR_CODE(RC_INVALID_ARG, kLogStorage, "Wrong file signature, file path %s",
                       path.c_str());
        return RC_INVALID_ARG;
    }
    if (header.version != kFormatVersion) {
        LOG_ERROR_CODE(RC_INVALID_ARG, kLogStorage,
                       "Wrong file version %d,expected %d,file path %s", u32{header.version},
                       kFormatVersion, path.c_str());
        return RC_INVALID_ARG;
    }
    return RC_OK;
}

[[nodiscard]] ResultCode LockToDelete(const std::string& path, File* file) {
    bool opened = false;
    const auto open = [&](File* found) {
        opened = OpenAs(path, FileDisposition::kOpenExisting, found);
        return opened ? ResultCode{RC_OK} : u32{RC_SYSTEM_ERROR};
    };
    const ResultCode rc = OpenForWriting(path, NoLocks::kSilent, open, file);
    // A file that cannot be opened for writing has no lock that we could ask for.
    return opened ? rc : ResultCode{RC_OK};
}

}  // namespace

i64 GetMebibytesParam(const char* connStr, const char* key, bool* given) {
    assert(given != nullptr);
    i32 mebibytes = 0;
    *given = GetParamInt(connStr, key, &mebibytes);
    return i64{mebibytes} * 1024 * 1024;
}

ResultCode InitNewFile(File& file, const TFileHeader& header, const TCommitBlock& firstCommit,
                       i64* initialSize) {
    assert(file.IsOpen() && initialSize != nullptr);
    if (ResultCode rc = SeekTo(file, 0); rc != RC_OK) {
        return rc;
    }
    if (ResultCode rc = WriteFirstBytes(file, header, firstCommit); rc != RC_OK) {
        return rc;
    }
    if (*initialSize > kNewFileSize) {
        if (!file.SetEnd(*initialSize)) {
            LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                           "Cannot set initial file size (%I64d);sys-err %r", *initialSize,
                           LastSystemError());
            return RC_SYSTEM_ERROR;
        }
    } else {
        *initialSize = kNewFileSize;
    }
    if (ResultCode rc = SeekTo(file, kFirstItemOffset); rc != RC_OK) {
        return rc;
    }
    if (!file.FlushToDisk()) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Cannot flush file;sys-err %r",
                       LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    return RC_OK;
}

ResultCode CreateStorageFile(const char* connStr, u32 flags, IndexRemover removeIndex) {
    assert(removeIndex != nullptr);
    std::string path;
    if (ResultCode rc = GetPath(connStr, &path); rc != RC_OK) {
        return rc;
    }
    if (IsMemoryPath(path)) {
        return RC_OK;
    }
    if (ResultCode rc = CheckStorageNames(connStr); rc != RC_OK) {
        return rc;
    }
    bool lock = true;
    if (ResultCode rc = ReadFileLock(connStr, &lock); rc != RC_OK) {
        return rc;
    }
    // Dropped: if a directory could not be made, opening the file fails and says so.
    (void)platform::MakeParentDirectories(path);
    const std::string target = platform::FollowLink(path);
    File file;
    bool existed = false;
    if (ResultCode rc = OpenToCreate(connStr, removeIndex, path, flags, lock, &file, &existed);
        rc != RC_OK) {
        return rc;
    }
    if (existed) {
        return Replaces(flags) ? FillNewFile(connStr, path, target, file) : ResultCode{RC_OK};
    }
    UnfinishedFile unfinished(file, target);
    const ResultCode rc = FillNewFile(connStr, path, target, file);
    if (rc == RC_OK) {
        unfinished.Finish();
    }
    return rc;
}

ResultCode DeleteStorageFile(const char* connStr) {
    std::string path;
    if (ResultCode rc = GetPath(connStr, &path); rc != RC_OK) {
        return rc;
    }
    if (IsMemoryPath(path)) {
        return RC_OK;
    }
    if (!platform::RemoveFile(path)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Cannot delete storage file;path %s",
                       path.c_str());
        return RC_SYSTEM_ERROR;
    }
    // Dropped: the file is gone for this process in any case; a crash may bring its name back.
    (void)FlushNamesBeside(path);
    return RC_OK;
}

ResultCode DeleteStorage(const char* connStr, IndexRemover removeIndex) {
    assert(removeIndex != nullptr);
    if (ResultCode rc = CheckStorageNames(connStr); rc != RC_OK) {
        return rc;
    }
    std::string path;
    GetParam(connStr, "file", path);
    bool lock = true;
    if (ResultCode rc = ReadFileLock(connStr, &lock); rc != RC_OK) {
        return rc;
    }
    File file;
    if (lock && !IsMemoryPath(path)) {
        if (ResultCode rc = LockToDelete(path, &file); rc != RC_OK) {
            return rc;
        }
    }
    removeIndex(connStr);
    if (!platform::kOpenFilesCanBeRenamed) {
        file.Close();
    }
    return DeleteStorageFile(connStr);
}

ResultCode OpenAndCheckFile(const std::string& path, const platform::FileOpenRequest& request,
                            File* file) {
    assert(file != nullptr);
    File opened;
    if (!opened.Open(path.c_str(), request)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Failed to create file '%s';sys-err %r",
                       path.c_str(), LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    TFileHeader header;
    u32 got = 0;
    if (ReadWhole(opened, &header, kFileHeaderSize, &got) != RC_OK) {
        i64 size = 0;
        if (got == 0 && LastSystemError() == 0 && opened.GetSize(&size) && size == 0) {
            LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                           "Storage file is empty, its creation was not completed;file path %s",
                           path.c_str());
            return RC_SYSTEM_ERROR;
        }
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                       "Failed to read file header;file path %s,sys-err %r", path.c_str(),
                       LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    if (ResultCode rc = CheckHeader(header, path); rc != RC_OK) {
        return rc;
    }
    *file = std::move(opened);
    return RC_OK;
}

}  // namespace k9erepl
