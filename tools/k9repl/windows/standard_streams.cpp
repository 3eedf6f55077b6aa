// Opens the empty device, in the direction that the stream is not used in; keeps the C library from
// translating line ends.
#include "standard_streams.h"

#include <fcntl.h>
#include <io.h>

#include <cstdio>

#include "windows/win32.h"

namespace k9repl {

namespace {

// A caller may pass a handle that is closed. Its number is given to the next thing that is opened.
bool IsOpen(HANDLE stream) {
    if (stream == nullptr || stream == INVALID_HANDLE_VALUE) {
        return false;
    }
    SetLastError(NO_ERROR);
    return GetFileType(stream) != FILE_TYPE_UNKNOWN || GetLastError() == NO_ERROR;
}

void Hold(DWORD stream, DWORD unusedAccess) {
    if (!IsOpen(GetStdHandle(stream))) {
        SetStdHandle(stream, CreateFileA("NUL", unusedAccess, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                         nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    }
}

}  // namespace

void PrepareStandardStreams() {
    Hold(STD_INPUT_HANDLE, GENERIC_WRITE);
    Hold(STD_OUTPUT_HANDLE, GENERIC_READ);
    Hold(STD_ERROR_HANDLE, GENERIC_READ);
    for (FILE* stream : {stdin, stdout, stderr}) {
        const int descriptor = _fileno(stream);
        if (descriptor >= 0) {
            (void)_setmode(descriptor, _O_BINARY);
        }
    }
}

}  // namespace k9repl
