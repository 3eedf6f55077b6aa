// What the tool asks the operating system because the standard library does not answer it: which
// file a path leads to, and the system's last error. posix/ and windows/ have one source each.
#ifndef K9EREPL_K9REPL_SYSTEM_H
#define K9EREPL_K9REPL_SYSTEM_H

#include <cstdint>
#include <string>
#include <system_error>

namespace k9repl {

// Identifies a file, to find out whether a path still leads to the same one: equal for one file,
// different for two files that exist at the same time.
struct FileIdentity {
    std::uint64_t volume = 0;  // 0 if there is no file
    std::uint64_t file = 0;    // the file's number on the volume; 0 if there is no file
    bool operator==(const FileIdentity&) const = default;
};

FileIdentity IdentityOf(const std::string& path);

// The path of the file that a squeeze of the storage at `path` replaces: if `path` is a symbolic
// link, that is the link's target, on Windows the link itself.
std::string FollowLink(const std::string& path);

// The error of the last system call on this thread, as a code that has a text.
std::error_code LastError();

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_SYSTEM_H
