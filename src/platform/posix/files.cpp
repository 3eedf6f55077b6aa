// Open files: one attempt of each call.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/native_calls.h"

namespace k9erepl::platform::native {
namespace {

static_assert(sizeof(off_t) == sizeof(i64), "files over 2 GiB need 64-bit offsets");

constexpr mode_t kOwnerOnlyMode = 0600;
constexpr mode_t kEverybodyMode = 0666;  // the system takes the umask off

int Descriptor(NativeFile file) {
    return static_cast<int>(file);
}

int AccessFlags(FileAccess access) {
    switch (access) {
        case FileAccess::kRead:
            return O_RDONLY;
        case FileAccess::kWrite:
            return O_WRONLY;
        case FileAccess::kReadWrite:
            break;
    }
    return O_RDWR;
}

int DispositionFlags(FileDisposition disposition) {
    switch (disposition) {
        case FileDisposition::kOpenExisting:
            return 0;
        case FileDisposition::kCreateNew:
            return O_CREAT | O_EXCL;
        case FileDisposition::kCreateAlways:
            return O_CREAT | O_TRUNC;
        case FileDisposition::kOpenAlways:
            break;
    }
    return O_CREAT;
}

// Without O_NONBLOCK, opening a FIFO would wait for its other end.
int OpenFlags(const FileOpenRequest& request) {
    return AccessFlags(request.access) | DispositionFlags(request.disposition) | O_CLOEXEC |
           O_NONBLOCK | O_NOCTTY | (request.writeThrough ? O_DSYNC : 0);
}

bool IsRegularFile(int descriptor) {
    struct stat info = {};
    if (fstat(descriptor, &info) != 0) {
        return false;
    }
    if (!S_ISREG(info.st_mode)) {
        errno = S_ISDIR(info.st_mode) ? EISDIR : ENXIO;
        return false;
    }
    return true;
}

void CloseKeepingError(int descriptor) {
    const int cause = errno;
    close(descriptor);
    errno = cause;
}

// Only root may give a file to another user; other processes may at least set one of their groups.
void TakeOwner(int descriptor, const struct stat& from) {
    constexpr auto kSameUser = static_cast<uid_t>(-1);
    if (fchown(descriptor, from.st_uid, from.st_gid) != 0 &&
        fchown(descriptor, kSameUser, from.st_gid) != 0) {
        return;  // the file keeps our user and group
    }
}

}  // namespace

NativeFile FileOpen(const char* path, const FileOpenRequest& request) {
    const int descriptor =
        open(path, OpenFlags(request), request.ownerOnly ? kOwnerOnlyMode : kEverybodyMode);
    if (descriptor < 0) {
        return kInvalidNativeFile;
    }
    if (!IsRegularFile(descriptor)) {
        CloseKeepingError(descriptor);
        return kInvalidNativeFile;
    }
    if (request.sequentialScan) {
        posix_fadvise(descriptor, 0, 0, POSIX_FADV_SEQUENTIAL);
    }
    return descriptor;
}

bool FileClose(NativeFile file) {
    return close(Descriptor(file)) == 0;
}

i64 FileRead(NativeFile file, void* buffer, u32 size) {
    return read(Descriptor(file), buffer, size);
}

i64 FileWrite(NativeFile file, const void* data, u32 size) {
    return write(Descriptor(file), data, size);
}

i64 FileSeek(NativeFile file, i64 position) {
    return lseek(Descriptor(file), position, SEEK_SET);
}

i64 FileTell(NativeFile file) {
    return lseek(Descriptor(file), 0, SEEK_CUR);
}

bool FileSetEnd(NativeFile file, i64 size) {
    return ftruncate(Descriptor(file), size) == 0;
}

i64 FileSize(NativeFile file) {
    struct stat info = {};
    return fstat(Descriptor(file), &info) == 0 ? i64{info.st_size} : -1;
}

bool FileFlush(NativeFile file) {
    return fdatasync(Descriptor(file)) == 0;
}

void FileStartFlush([[maybe_unused]] NativeFile file, [[maybe_unused]] i64 position,
                    [[maybe_unused]] i64 size) {
#ifdef SYNC_FILE_RANGE_WRITE
    const int cause = errno;
    // The flags that wait are left out: they would report an error here that the flush which
    // follows would then not report.
    sync_file_range(Descriptor(file), position, size, SYNC_FILE_RANGE_WRITE);
    errno = cause;
#endif
}

bool FileTakeOwnerAndMode(NativeFile file, const char* from) {
    constexpr mode_t kPermissions = 0777;  // without the set-id bits, which no data file needs
    struct stat info = {};
    if (stat(from, &info) != 0) {
        return false;
    }
    TakeOwner(Descriptor(file), info);  // comes first: a change of owner may clear permissions
    return fchmod(Descriptor(file), info.st_mode & kPermissions) == 0;
}

}  // namespace k9erepl::platform::native
