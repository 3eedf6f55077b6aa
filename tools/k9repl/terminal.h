// Whether somebody watches, and can answer. Used by the progress line and by questions.
#ifndef K9EREPL_K9REPL_TERMINAL_H
#define K9EREPL_K9REPL_TERMINAL_H

namespace k9repl {

bool StandardErrorIsTerminal();
bool StandardInputIsTerminal();

// Whether standard error is a terminal that obeys "\r\033[K", go back and erase the line.
bool StandardErrorErasesLines();

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_TERMINAL_H
