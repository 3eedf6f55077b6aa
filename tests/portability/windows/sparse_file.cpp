// A file has holes after it was told so.
#include "portability/sparse_file.h"

#include "platform/windows/win32.h"
// After win32.h, whose types it needs.
#include <winioctl.h>

namespace k9erepl::test {

bool LetHaveHoles(const std::string& path) {
    const HANDLE file = CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return false;
    }
    DWORD got = 0;
    const bool done =
        DeviceIoControl(file, FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &got, nullptr) != FALSE;
    CloseHandle(file);
    return done;
}

}  // namespace k9erepl::test
