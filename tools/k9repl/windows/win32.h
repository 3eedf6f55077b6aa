// The operating system's header, without its rarely used parts and without its min and max. Used by
// the files of this folder alone.
#ifndef K9EREPL_K9REPL_WINDOWS_WIN32_H
#define K9EREPL_K9REPL_WINDOWS_WIN32_H

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <system_error>

namespace k9repl {

inline std::error_code SystemErrorCode(DWORD error) {
    return {static_cast<int>(error), std::system_category()};
}

inline std::error_code LastError() {
    return SystemErrorCode(GetLastError());
}

// Only a console answers to its mode; other devices of characters, such as NUL, are none.
inline bool IsConsole(HANDLE stream) {
    DWORD mode = 0;
    return GetConsoleMode(stream, &mode) != FALSE;
}

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_WINDOWS_WIN32_H
