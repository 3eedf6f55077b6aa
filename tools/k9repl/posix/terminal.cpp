// Asks the system about the standard streams.
#include "terminal.h"

#include <unistd.h>

namespace k9repl {

bool StandardErrorIsTerminal() {
    return isatty(STDERR_FILENO) == 1;
}

bool StandardInputIsTerminal() {
    return isatty(STDIN_FILENO) == 1;
}

bool StandardErrorErasesLines() {
    return StandardErrorIsTerminal();
}

}  // namespace k9repl
