// The value of the setting "file" that stands for no file. Everybody who reads that setting asks
// here, so that opening, creating, deleting and naming the index file agree.
#ifndef K9EREPL_SUPPORT_MEMORY_PATH_H
#define K9EREPL_SUPPORT_MEMORY_PATH_H

#include <string_view>

#include "support/ignore_case.h"

namespace k9erepl {

// Tells whether `path` is ":memory:" in any case of letters: the storage then lives in memory and
// touches no disk. An empty path is something else: the setting is missing.
constexpr bool IsMemoryPath(std::string_view path) {
    return EqualsIgnoringCase(path, ":memory:");
}

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_MEMORY_PATH_H
