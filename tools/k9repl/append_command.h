// k9repl append: records from a file or standard input into a storage.
#ifndef K9EREPL_K9REPL_APPEND_COMMAND_H
#define K9EREPL_K9REPL_APPEND_COMMAND_H

#include <cstdint>
#include <string>

namespace k9repl {

struct AppendOptions {
    std::string conn;
    std::string input = "-";
    bool lengthPrefixed = false;
    bool create = false;
    bool ack = false;
    bool acceptDamage = false;  // append behind damage in the middle of the file
    std::uint32_t perTrans = 100;
    std::uint32_t commitAfterMs = 1000;
};

// Returns the exit status; throws ToolError. Success is reported only when everything that was
// committed is also flushed as the storage's settings say.
int RunAppend(const AppendOptions& options);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_APPEND_COMMAND_H
