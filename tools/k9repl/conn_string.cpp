// Finds settings in a connection string.
#include "conn_string.h"

#include <algorithm>
#include <limits>

namespace k9repl {

namespace {

constexpr std::string_view kSeparators = ";,";
constexpr std::string_view kBlanks = " \t";
constexpr std::string_view kMemoryOnly = ":memory:";
constexpr std::uint32_t kBlockSizeDefault = 1048672;
constexpr std::uint32_t kRecordHeadSize = 24;
constexpr std::uint32_t kFileRecordSizeMax = 10485760;  // head included

std::string_view WithoutLeading(std::string_view text) {
    return text.substr(std::min(text.find_first_not_of(kBlanks), text.size()));
}

// Digits behind blanks and a plus sign; 0 for anything else, saturated.
std::uint32_t ToNumber(std::string_view text) {
    text = WithoutLeading(text);
    if (!text.empty() && text.front() == '+') {
        text.remove_prefix(1);
    }
    std::uint64_t number = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            break;
        }
        number = std::min<std::uint64_t>(number * 10 + static_cast<std::uint64_t>(c - '0'),
                                         std::numeric_limits<std::uint32_t>::max());
    }
    return static_cast<std::uint32_t>(number);
}

}  // namespace

std::string ConnValue(std::string_view conn, std::string_view key) {
    while (!conn.empty()) {
        const std::size_t itemSize = std::min(conn.find_first_of(kSeparators), conn.size());
        std::string_view item = WithoutLeading(conn.substr(0, itemSize));
        if (item.substr(0, key.size()) == key) {
            item = WithoutLeading(item.substr(key.size()));
            if (item.empty() || item.front() == '=') {
                return std::string(item.empty() ? item : WithoutLeading(item.substr(1)));
            }
        }
        conn.remove_prefix(std::min(itemSize + 1, conn.size()));
    }
    return {};
}

std::string StoragePath(std::string_view conn) {
    return ConnValue(conn, "file");
}

std::string IndexPath(std::string_view conn) {
    if (std::string given = ConnValue(conn, "index_file"); !given.empty()) {
        return given;
    }
    const std::string path = StoragePath(conn);
    if (path.empty() || path == kMemoryOnly) {
        return {};
    }
    const std::size_t separator = path.find_last_of("/\\");
    const std::size_t dot = path.rfind('.');
    const bool hasDot =
        dot != std::string::npos && (separator == std::string::npos || dot > separator);
    if (!hasDot) {
        return path + ".edb-idx";
    }
    return dot + 1 == path.size() ? path + "edb-idx" : path + "-idx";
}

std::uint32_t RecordSizeMax(std::string_view conn) {
    const std::string given = ConnValue(conn, "block_size");
    const std::uint32_t blockSize = given.empty() ? kBlockSizeDefault : ToNumber(given);
    const std::uint32_t recordSize = std::min(blockSize, kFileRecordSizeMax);
    return recordSize > kRecordHeadSize ? recordSize - kRecordHeadSize : 0;
}

}  // namespace k9repl
