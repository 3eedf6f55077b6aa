// The settings that a connection string may have, as a table, and the check of a connection string
// against it. The library passes over what it does not know; the tool refuses it, so that a slip is
// seen before it costs data. Used by the command line for every --conn.
#ifndef K9EREPL_K9REPL_SETTINGS_H
#define K9EREPL_K9REPL_SETTINGS_H

#include <string>
#include <string_view>

namespace k9repl {

// Empty when every item of `conn` is a known key with a value of its kind, given once, and with an
// effect; else a sentence that names the item and the nearest known one. Ranges of numbers are the
// library's to judge.
std::string WhatIsWrongWith(std::string_view conn);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_SETTINGS_H
