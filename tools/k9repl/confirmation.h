// A question on the terminal before something that cannot be undone. Used by truncate.
#ifndef K9EREPL_K9REPL_CONFIRMATION_H
#define K9EREPL_K9REPL_CONFIRMATION_H

#include <string>

namespace k9repl {

// Whether there is a terminal to ask on: standard error shows, standard input answers.
bool CanAsk();

// Asks `question` with "[y/N]" behind it. True for "y" or "yes" in any case of letters. Throws
// ToolError when it is interrupted; says that nothing was changed.
bool Confirm(const std::string& question);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_CONFIRMATION_H
