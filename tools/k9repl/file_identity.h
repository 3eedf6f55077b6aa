// Whether a path still leads to the file that it led to before. Used by clear, which tells by it
// that a squeeze took place.
#ifndef K9EREPL_K9REPL_FILE_IDENTITY_H
#define K9EREPL_K9REPL_FILE_IDENTITY_H

#include <cstdint>
#include <string>

namespace k9repl {

// Equal for one file and different for two that exist at the same time.
struct FileIdentity {
    std::uint64_t volume = 0;  // both 0 when there is no file
    std::uint64_t file = 0;
    bool operator==(const FileIdentity&) const = default;
};

FileIdentity IdentityOf(const std::string& path);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_FILE_IDENTITY_H
