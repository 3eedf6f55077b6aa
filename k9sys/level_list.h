// Reads a list of log levels: "warning", "k9eRepl-storage=info,***TP***=info", or both kinds mixed.
// Used for the environment variable K9SYS_LOG and for K9SysSetLogLevels.
#ifndef K9SYS_LEVEL_LIST_H
#define K9SYS_LEVEL_LIST_H

#include <k9sys/k9sys.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace k9sys {

struct LevelList {
    K9SysLogLevel defaultLevel = K9SYS_LOG_ERROR;
    std::vector<std::pair<std::string, K9SysLogLevel>> modules;  // in the order of the text

    // The level that `module` takes.
    K9SysLogLevel LevelOf(std::string_view module) const;
};

// Items are separated by ','; blanks around an item, a name or a level and empty items do not
// count; of several items for the same thing the last one holds. False for a level that does not
// exist or a module without a name; *list is then unspecified. Throws std::bad_alloc.
bool ParseLevelList(std::string_view text, LevelList* list);

// "error", "warning", "info" or "off", as in a list and in the lines of the log.
const char* LevelName(K9SysLogLevel level);

}  // namespace k9sys

#endif  // K9SYS_LEVEL_LIST_H
