// A question on the terminal before something that cannot be undone. Used by clear and truncate.
#ifndef K9EREPL_K9REPL_CONFIRMATION_H
#define K9EREPL_K9REPL_CONFIRMATION_H

#include <string>

namespace k9repl {

// Throws ToolError where there is no terminal to ask on: standard error shows, standard input
// answers. `does` is what --yes does without asking: "truncates".
void RequireTerminal(const std::string& does);

// Asks `question` with "[y/N]" behind it, and goes on after "y" or "yes" in any case of letters.
// Throws ToolError after any other answer and when interrupted; says that nothing was changed.
void RequireConfirmation(const std::string& question);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_CONFIRMATION_H
