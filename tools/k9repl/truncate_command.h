// k9repl truncate: throws the whole content of a storage away.
#ifndef K9EREPL_K9REPL_TRUNCATE_COMMAND_H
#define K9EREPL_K9REPL_TRUNCATE_COMMAND_H

#include <string>

namespace k9repl {

struct TruncateOptions {
    std::string conn;
    bool yes = false;  // do not ask
};

// Returns the exit status; throws ToolError.
int RunTruncate(const TruncateOptions& options);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_TRUNCATE_COMMAND_H
