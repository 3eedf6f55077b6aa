// Derives the index file's path from the connection string. Also compiled into the command-line
// tool.
#include "index/index_file_name.h"

#include <cassert>

#include "support/memory_path.h"
#include "support/params.h"

namespace k9erepl {

namespace {

constexpr const char* kExtension = "edb-idx";
constexpr const char* kExtensionSuffix = "-idx";

std::string DeriveName(const std::string& storagePath) {
    const std::size_t dot = storagePath.rfind('.');
    const std::size_t separator = storagePath.find_last_of("/\\");
    const bool hasDot =
        dot != std::string::npos && (separator == std::string::npos || dot > separator);
    if (!hasDot) {
        return storagePath + "." + kExtension;
    }
    const bool hasExtension = dot + 1 < storagePath.size();
    return hasExtension ? storagePath + kExtensionSuffix : storagePath + kExtension;
}

}  // namespace

std::string IndexFileName(const char* connStr) {
    assert(connStr != nullptr);
    std::string storagePath;
    GetParam(connStr, "file", storagePath);
    if (IsMemoryPath(storagePath)) {
        return std::string();
    }
    std::string path;
    GetParam(connStr, "index_file", path);
    if (!path.empty() || storagePath.empty()) {
        return path;
    }
    return DeriveName(storagePath);
}

}  // namespace k9erepl
