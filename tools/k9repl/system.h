// Questions about files to the operating system that the standard library does not answer, and the
// system's last error. posix/ and windows/ have one source each.
#ifndef K9EREPL_K9REPL_SYSTEM_H
#define K9EREPL_K9REPL_SYSTEM_H

#include <cstdint>
#include <string>
#include <system_error>

namespace k9repl {

// Tells whether a path still leads to the file that it led to before: equal for one file, different
// for two that exist at the same time.
struct FileIdentity {
    std::uint64_t volume = 0;  // both 0 when there is no file
    std::uint64_t file = 0;
    bool operator==(const FileIdentity&) const = default;
};

FileIdentity IdentityOf(const std::string& path);

// The path of the storage file that a squeeze of the one at `path` replaces: where `path` is a
// symbolic link, the library replaces what it leads to. On Windows it replaces the link itself.
std::string FollowLink(const std::string& path);

// The error of the last system call on this thread, as a code that knows its text.
std::error_code LastError();

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_SYSTEM_H
