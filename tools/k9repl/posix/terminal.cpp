// Asks the system about standard error.
#include "terminal.h"

#include <unistd.h>

namespace k9repl {

bool StandardErrorIsTerminal() {
    return isatty(STDERR_FILENO) == 1;
}

}  // namespace k9repl
