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

// LockFileEx and UnlockFileEx have the place of the byte from here.
OVERLAPPED AtLockedByte() {
    OVERLAPPED place = {};
    place.Offset = static_cast<DWORD>(kLockedByte & 0xFFFFFFFF);
    place.OffsetHigh = static_cast<DWORD>(kLockedByte >> 32);
    return place;
}

// The two codes that the table knows, of the many that file systems give.
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

// The system unlocks what is closed, but takes its time.
bool FileUnlock(NativeFile file) {
    OVERLAPPED place = AtLockedByte();
    return UnlockFileEx(HandleOf(file), 0, 1, 0, &place) != FALSE;
}

bool FileIdentify(NativeFile file, FileIdentity* identity) {
    return Identify(HandleOf(file), identity);
}

// Without any access right, so that no sharing mode of another handle is in the way; the flag lets
// a folder be opened, too.
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
