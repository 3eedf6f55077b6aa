// Finds settings in a connection string.
#include "conn_string.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>

#include "support/memory_path.h"

namespace k9repl {

namespace {

constexpr std::string_view kSeparators = ";,";
constexpr std::string_view kBlanks = " \t";
constexpr std::uint32_t kBlockSizeDefault = 1048672;
constexpr std::uint32_t kRecordHeadSize = 24;

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

std::string_view WithoutTrailing(std::string_view text) {
    return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

}  // namespace

std::vector<ConnItem> ConnItems(std::string_view conn) {
    std::vector<ConnItem> items;
    while (!conn.empty()) {
        const std::size_t itemSize = std::min(conn.find_first_of(kSeparators), conn.size());
        const std::string_view item = conn.substr(0, itemSize);
        const std::size_t keySize = std::min(item.find('='), item.size());
        const std::string_view key = WithoutTrailing(WithoutLeading(item.substr(0, keySize)));
        const std::size_t valueAt = std::min(keySize + 1, item.size());
        if (!key.empty() || keySize < item.size()) {
            items.push_back({key, WithoutLeading(item.substr(valueAt))});
        }
        conn.remove_prefix(std::min(itemSize + 1, conn.size()));
    }
    return items;
}

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

namespace {

std::uint32_t BlockSize(std::string_view conn) {
    const std::string given = ConnValue(conn, "block_size");
    return given.empty() ? kBlockSizeDefault : ToNumber(given);
}

}  // namespace

std::string StoragePath(std::string_view conn) {
    return ConnValue(conn, "file");
}

std::string IndexPath(std::string_view conn) {
    if (std::string given = ConnValue(conn, "index_file"); !given.empty()) {
        return given;
    }
    const std::string path = StoragePath(conn);
    if (path.empty() || k9erepl::IsMemoryPath(path)) {
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

std::string BlockSizeInWords(std::string_view conn) {
    const bool given = !ConnValue(conn, "block_size").empty();
    return fmt::format("block_size={}{}", BlockSize(conn), given ? "" : ", the default");
}

RecordLimit RecordLimitOf(std::string_view conn) {
    const std::uint32_t recordSize = std::min(BlockSize(conn), kFileRecordSizeMax);
    const std::uint32_t dataSize = recordSize > kRecordHeadSize ? recordSize - kRecordHeadSize : 0;
    if (recordSize == kFileRecordSizeMax) {
        return {dataSize,
                "the most that a record of a storage file can have, whatever its block_size; cut "
                "it into smaller records"};
    }
    return {dataSize, fmt::format("the most that a record can have with {}; give a block_size of "
                                  "the record's bytes and 24 more, at most {}",
                                  BlockSizeInWords(conn), kFileRecordSizeMax)};
}

}  // namespace k9repl
