// k9repl verify: whether a storage file is sound, told without changing a byte of it.
#ifndef K9EREPL_K9REPL_VERIFY_COMMAND_H
#define K9EREPL_K9REPL_VERIFY_COMMAND_H

#include <string>

namespace k9repl {

// An exit status of its own, besides those of every command.
inline constexpr int kExitTornEnd = 3;

struct VerifyOptions {
    std::string conn;
    bool json = false;
};

// Returns the exit status; throws ToolError.
int RunVerify(const VerifyOptions& options);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_VERIFY_COMMAND_H
