// The commands: what the command line hands to each, and how each is run. COMMAND_command.cpp holds
// one; main.cpp calls them. Every Run function returns the exit status and throws ToolError.
#ifndef K9EREPL_K9REPL_COMMANDS_H
#define K9EREPL_K9REPL_COMMANDS_H

#include <k9erepl/storage.h>

#include <cstdint>
#include <limits>
#include <string>

namespace k9repl {

// k9repl append: records from a file or standard input into a storage.
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

// Success is reported only when everything that was committed is also flushed as the storage's
// settings say.
int RunAppend(const AppendOptions& options);

// k9repl cat: the records of a storage to standard output.
enum class RecordFormat {
    kRaw,             // the data of one record behind the other, nothing between them
    kLines,           // the data and a newline
    kJson,            // an object a line: rev, userWord, size, and data or base64
    kLengthPrefixed,  // 32-bit little-endian length, data
};

struct CatOptions {
    std::string conn;
    std::int64_t from = 0;
    std::int64_t to = std::numeric_limits<std::int64_t>::max();  // both inclusive
    RecordFormat format = RecordFormat::kLines;
};

int RunCat(const CatOptions& options);

// k9repl stat: what a storage says of itself.
struct StatOptions {
    std::string conn;
    bool json = false;
};

int RunStat(const StatOptions& options);

// k9repl verify: checks the storage file without changing a byte of it.
struct VerifyOptions {
    std::string conn;
    bool json = false;
};

int RunVerify(const VerifyOptions& options);

// k9repl clear: takes old revisions out of a storage, or marks them.
enum class ClearMode : std::uint32_t {
    // The file keeps the records, and they are not served any more.
    kLogical = K9EREPL_CLEAR_LOGICAL,
    // A copy without them takes the file's place.
    kSqueeze = K9EREPL_CLEAR_SQUEEZE,
    // The same, and the old file stays as ".backup".
    kSqueezeBackup = K9EREPL_CLEAR_SQUEEZE_BACKUP,
    // Only the revision is noted.
    kMark = K9EREPL_CLEAR_MARK,
};

struct ClearOptions {
    std::string conn;
    std::int64_t to = 0;  // the first revision that is kept
    ClearMode mode = ClearMode::kLogical;
    bool all = false;  // `to` may be above the next revision
    bool yes = false;  // do not ask then
};

int RunClear(const ClearOptions& options);

// k9repl truncate: throws the whole content of a storage away.
struct TruncateOptions {
    std::string conn;
    bool yes = false;  // do not ask
};

int RunTruncate(const TruncateOptions& options);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_COMMANDS_H
