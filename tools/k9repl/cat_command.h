// k9repl cat: the records of a storage to standard output.
#ifndef K9EREPL_K9REPL_CAT_COMMAND_H
#define K9EREPL_K9REPL_CAT_COMMAND_H

#include <cstdint>
#include <limits>
#include <string>

#include "record_printer.h"

namespace k9repl {

struct CatOptions {
    std::string conn;
    std::int64_t from = 0;
    std::int64_t to = std::numeric_limits<std::int64_t>::max();  // both inclusive
    RecordFormat format = RecordFormat::kLines;
};

// Returns the exit status; throws ToolError.
int RunCat(const CatOptions& options);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_CAT_COMMAND_H
