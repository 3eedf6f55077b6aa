// The writer's lock and the identity of files: one attempt of each call.
#include "platform/file_lock.h"
#include "platform/native_calls.h"
#include "platform/system_error.h"
#include "platform/windows/win32.h"

namespace k9erepl::platform::native {
namespace {

HANDLE HandleOf(NativeFile file) {
    return reinterpret_cast<HANDLE>(file);
}

// Tells LockFileEx and UnlockFileEx which byte is meant.
OVERLAPPED AtLockedByte() {
    OVERLAPPED place = {};
    place.Offset = static_cast<DWORD>(kLockedByte & 0xFFFFFFFF);
    place.OffsetHigh = static_cast<DWORD>(kLockedByte >> 32);
    return place;
}

// Maps the many codes that file systems give to the two that the table knows.
SystemError CommonLockError(SystemError error) {
    switch (error) {
        case ERROR_IO_PENDING:
            return ERROR_LOCK_VIOLATION;
        case ERROR_INVALID_FUNCTION:
        case ERROR_CALL_NOT_IMPLEMENTED:
        case ERROR_INVALID_PARAMETER:
            return ERROR_NOT_SUPPORTED;
        default:
            return error;
    }
}

bool Identify(HANDLE file, FileIdentity* identity) {
    BY_HANDLE_FILE_INFORMATION info = {};
    if (GetFileInformationByHandle(file, &info) == FALSE) {
        return false;
    }
    identity->volume = info.dwVolumeSerialNumber;
    identity->number = (u64{info.nFileIndexHigh} << 32) | info.nFileIndexLow;
    return true;
}

}  // namespace

bool FileLock(NativeFile file) {
    OVERLAPPED place = AtLockedByte();
    if (LockFileEx(HandleOf(file), LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0,
                   &place) != FALSE) {
        return true;
    }
    SetLastSystemError(CommonLockError(LastSystemError()));
    return false;
}

// The system also unlocks a file that is closed, but perhaps only a while later.
bool FileUnlock(NativeFile file) {
    OVERLAPPED place = AtLockedByte();
    return UnlockFileEx(HandleOf(file), 0, 1, 0, &place) != FALSE;
}

bool FileIdentify(NativeFile file, FileIdentity* identity) {
    return Identify(HandleOf(file), identity);
}

// Opens the file without any access right, so that no other handle's sharing mode forbids it. The
// flag lets a folder be opened, too.
bool NameIdentify(const char* path, FileIdentity* identity) {
    const HANDLE file = CreateFileA(path, 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                    nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return false;
    }
    const bool identified = Identify(file, identity);
    const SystemError cause = LastSystemError();
    CloseHandle(file);
    SetLastSystemError(cause);
    return identified;
}

}  // namespace k9erepl::platform::native
