// k9repl clear: takes old revisions out of a storage, or marks them.
#ifndef K9EREPL_K9REPL_CLEAR_COMMAND_H
#define K9EREPL_K9REPL_CLEAR_COMMAND_H

#include <cstdint>
#include <string>

namespace k9repl {

// The values are the library's.
enum class ClearMode : std::uint32_t {
    kLogical = 0,        // the file keeps the records, and they are not served any more
    kSqueeze = 1,        // a copy without them takes the file's place
    kSqueezeBackup = 2,  // the same, and the old file stays as ".backup"
    kMark = 4,           // only the revision is noted
};

struct ClearOptions {
    std::string conn;
    std::int64_t to = 0;  // the first revision that is kept
    ClearMode mode = ClearMode::kLogical;
    bool all = false;  // `to` may be above the next revision
    bool yes = false;  // do not ask then
};

// Returns the exit status; throws ToolError.
int RunClear(const ClearOptions& options);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_CLEAR_COMMAND_H
