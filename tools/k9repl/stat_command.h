// k9repl stat: what a storage says of itself.
#ifndef K9EREPL_K9REPL_STAT_COMMAND_H
#define K9EREPL_K9REPL_STAT_COMMAND_H

#include <string>

namespace k9repl {

struct StatOptions {
    std::string conn;
    bool json = false;
};

// Returns the exit status; throws ToolError.
int RunStat(const StatOptions& options);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_STAT_COMMAND_H
