// Writes through the C library, whose results are of no use here.
#include "message.h"

#include <cstdio>

namespace k9repl {

void PrintMessage(std::string_view text) {
    (void)std::fwrite(text.data(), 1, text.size(), stderr);
    (void)std::fflush(stderr);
}

}  // namespace k9repl
