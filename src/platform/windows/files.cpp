// Open files: one attempt of each call.
#include "platform/native_calls.h"
#include "platform/system_error.h"
#include "platform/windows/win32.h"

namespace k9erepl::platform::native {
namespace {

HANDLE HandleOf(NativeFile file) {
    return reinterpret_cast<HANDLE>(file);
}

DWORD AccessRights(FileAccess access) {
    switch (access) {
        case FileAccess::kRead:
            return GENERIC_READ;
        case FileAccess::kWrite:
            return GENERIC_WRITE;
        case FileAccess::kReadWrite:
            break;
    }
    return GENERIC_READ | GENERIC_WRITE;
}

DWORD Disposition(FileDisposition disposition) {
    switch (disposition) {
        case FileDisposition::kOpenExisting:
            return OPEN_EXISTING;
        case FileDisposition::kCreateNew:
            return CREATE_NEW;
        case FileDisposition::kCreateAlways:
            return CREATE_ALWAYS;
        case FileDisposition::kOpenAlways:
            break;
    }
    return OPEN_ALWAYS;
}

DWORD ShareMode(FileSharing sharing) {
    switch (sharing) {
        case FileSharing::kRead:
            return FILE_SHARE_READ;
        case FileSharing::kAll:
            return FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
        case FileSharing::kReadWrite:
            break;
    }
    return FILE_SHARE_READ | FILE_SHARE_WRITE;
}

DWORD Attributes(const FileOpenRequest& request) {
    return FILE_ATTRIBUTE_NORMAL | (request.writeThrough ? FILE_FLAG_WRITE_THROUGH : 0) |
           (request.sequentialScan ? FILE_FLAG_SEQUENTIAL_SCAN : 0);
}

i64 MovePointer(NativeFile file, i64 distance, DWORD origin) {
    LARGE_INTEGER by = {};
    LARGE_INTEGER reached = {};
    by.QuadPart = distance;
    return SetFilePointerEx(HandleOf(file), by, &reached, origin) != FALSE ? reached.QuadPart : -1;
}

}  // namespace

NativeFile FileOpen(const char* path, const FileOpenRequest& request) {
    const HANDLE file =
        CreateFileA(path, AccessRights(request.access), ShareMode(request.sharing), nullptr,
                    Disposition(request.disposition), Attributes(request), nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return kInvalidNativeFile;
    }
    if (GetFileType(file) != FILE_TYPE_DISK) {
        CloseHandle(file);
        SetLastSystemError(SystemErrorOf(SystemErrorKind::kNotARegularFile));
        return kInvalidNativeFile;
    }
    return reinterpret_cast<NativeFile>(file);
}

bool FileClose(NativeFile file) {
    return CloseHandle(HandleOf(file)) != FALSE;
}

i64 FileRead(NativeFile file, void* buffer, u32 size) {
    DWORD got = 0;
    return ReadFile(HandleOf(file), buffer, size, &got, nullptr) != FALSE ? i64{got} : -1;
}

i64 FileWrite(NativeFile file, const void* data, u32 size) {
    DWORD put = 0;
    return WriteFile(HandleOf(file), data, size, &put, nullptr) != FALSE ? i64{put} : -1;
}

i64 FileSeek(NativeFile file, i64 position) {
    return MovePointer(file, position, FILE_BEGIN);
}

i64 FileTell(NativeFile file) {
    return MovePointer(file, 0, FILE_CURRENT);
}

bool FileSetEnd(NativeFile file, i64 size) {
    return FileSeek(file, size) >= 0 && SetEndOfFile(HandleOf(file)) != FALSE;
}

i64 FileSize(NativeFile file) {
    LARGE_INTEGER size = {};
    return GetFileSizeEx(HandleOf(file), &size) != FALSE ? size.QuadPart : -1;
}

bool FileFlush(NativeFile file) {
    return FlushFileBuffers(HandleOf(file)) != FALSE;
}

// Nothing to do: the system's cache manager begins writing by itself.
void FileStartFlush(NativeFile /*file*/, i64 /*position*/, i64 /*size*/) {}

// Nothing to do: a file has its access rights from its folder.
bool FileTakeOwnerAndMode(NativeFile /*file*/, const char* /*from*/) {
    return true;
}

}  // namespace k9erepl::platform::native
