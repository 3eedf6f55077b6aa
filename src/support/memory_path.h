// The value of the setting "file" that stands for no file. Whoever reads that setting asks here.
#ifndef K9EREPL_SUPPORT_MEMORY_PATH_H
#define K9EREPL_SUPPORT_MEMORY_PATH_H

#include <string_view>

#include "support/ignore_case.h"

namespace k9erepl {

// ":memory:" in any case of letters: the storage lives in memory and touches no disk.
constexpr bool IsMemoryPath(std::string_view path) {
    return EqualsIgnoringCase(path, ":memory:");
}

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_MEMORY_PATH_H
