// The commands: the options that the command line gives to each of them, and the function that runs
// it. Each command is one source, COMMAND_command.cpp; main.cpp calls them. Every Run function
// returns the exit status or throws ToolError. `conn` is always the connection string.
#ifndef K9EREPL_K9REPL_COMMANDS_H
#define K9EREPL_K9REPL_COMMANDS_H

#include <k9erepl/storage.h>

#include <cstdint>
#include <limits>
#include <string>

namespace k9repl {

// k9repl append: appends records from a file or from standard input to a storage.
struct AppendOptions {
    std::string conn;
    std::string input = "-";             // a path; "-" is standard input
    bool lengthPrefixed = false;         // each record follows its length; otherwise it is a line
    bool create = false;                 // make the storage if it does not exist
    bool ack = false;                    // print each revision once it is stored
    bool acceptDamage = false;           // append to a file that is damaged in the middle, too
    std::uint32_t perTrans = 100;        // records in a transaction, at least 1
    std::uint32_t commitAfterMs = 1000;  // the longest wait of a record for its commit, at least 1
};

// Reports success only if everything that was committed is also flushed as the storage's settings
// say.
int RunAppend(const AppendOptions& options);

// k9repl cat: prints the records of a storage on standard output.
enum class RecordFormat {
    kRaw,             // the data alone, with nothing between two records
    kLines,           // the data, then a newline
    kJson,            // one object on each line: rev, userWord, size, and data or base64
    kLengthPrefixed,  // the length as 32 bits in little-endian order, then the data
};

struct CatOptions {
    std::string conn;
    std::int64_t from = 0;                                       // the first revision, inclusive
    std::int64_t to = std::numeric_limits<std::int64_t>::max();  // the last revision, inclusive
    RecordFormat format = RecordFormat::kLines;
};

int RunCat(const CatOptions& options);

// k9repl stat: prints facts about a storage and its files.
struct StatOptions {
    std::string conn;
    bool json = false;
};

int RunStat(const StatOptions& options);

// k9repl verify: checks the storage file and changes nothing.
struct VerifyOptions {
    std::string conn;
    bool json = false;
};

int RunVerify(const VerifyOptions& options);

// k9repl clear: removes old revisions from a storage, or notes a revision as the clear mark.
enum class ClearMode : std::uint32_t {
    // The file keeps the records, but they are no longer served.
    kLogical = K9EREPL_CLEAR_LOGICAL,
    // A copy of the other records replaces the file.
    kSqueeze = K9EREPL_CLEAR_SQUEEZE,
    // The same, and the old file stays as ".backup".
    kSqueezeBackup = K9EREPL_CLEAR_SQUEEZE_BACKUP,
    // The header notes the revision; no record is removed.
    kMark = K9EREPL_CLEAR_MARK,
};

struct ClearOptions {
    std::string conn;
    std::int64_t to = 0;  // the first revision that is kept
    ClearMode mode = ClearMode::kLogical;
    bool all = false;  // `to` may be above the next revision, which removes everything
    bool yes = false;  // do not ask for confirmation in that case
};

int RunClear(const ClearOptions& options);

// k9repl truncate: removes the whole content of a storage.
struct TruncateOptions {
    std::string conn;
    bool yes = false;  // do not ask for confirmation
};

int RunTruncate(const TruncateOptions& options);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_COMMANDS_H
