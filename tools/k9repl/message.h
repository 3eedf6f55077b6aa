// Text on standard error: failures, notes, the progress line. Where nobody can be told, nothing is.
#ifndef K9EREPL_K9REPL_MESSAGE_H
#define K9EREPL_K9REPL_MESSAGE_H

#include <string_view>

namespace k9repl {

// Prints `text` as it stands, at once. Never fails.
void PrintMessage(std::string_view text);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_MESSAGE_H
