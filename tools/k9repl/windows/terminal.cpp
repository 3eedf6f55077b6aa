// Asks the system about the standard streams.
#include "terminal.h"

#include "windows/win32.h"

namespace k9repl {

bool StandardErrorIsTerminal() {
    return IsConsole(GetStdHandle(STD_ERROR_HANDLE));
}

bool StandardInputIsTerminal() {
    return IsConsole(GetStdHandle(STD_INPUT_HANDLE));
}

// Consoles understand the sequences since Windows 10, and only when they are told to.
bool StandardErrorErasesLines() {
    const HANDLE stream = GetStdHandle(STD_ERROR_HANDLE);
    DWORD mode = 0;
    return GetConsoleMode(stream, &mode) != FALSE &&
           SetConsoleMode(stream, mode | ENABLE_PROCESSED_OUTPUT |
                                      ENABLE_VIRTUAL_TERMINAL_PROCESSING) != FALSE;
}

}  // namespace k9repl
