// Whether somebody watches. Used by the progress line.
#ifndef K9EREPL_K9REPL_TERMINAL_H
#define K9EREPL_K9REPL_TERMINAL_H

namespace k9repl {

bool StandardErrorIsTerminal();

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_TERMINAL_H
