// The few settings of a connection string that the tool itself needs, read by the library's rules
// (docs/configuration.md): first item with the key wins, blanks around keys do not count.
#ifndef K9EREPL_K9REPL_CONN_STRING_H
#define K9EREPL_K9REPL_CONN_STRING_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace k9repl {

// One item of a connection string; it lives as long as the string.
struct ConnItem {
    std::string_view key;    // without blanks around it
    std::string_view value;  // without blanks in front of it; empty without "="
};

// The items in their order; empty ones (";;") are left out.
std::vector<ConnItem> ConnItems(std::string_view conn);

// The value of `key`, or an empty text when it is absent.
std::string ConnValue(std::string_view conn, std::string_view key);

// The storage file's path, as it stands.
std::string StoragePath(std::string_view conn);

// The index file's path: index_file, else derived from file; empty when there is none.
std::string IndexPath(std::string_view conn);

// "block_size=200", with ", the default" behind it where `conn` has none.
std::string BlockSizeInWords(std::string_view conn);

// The size in bytes that every record of a storage file fits into, its head of 24 bytes included.
inline constexpr std::uint32_t kFileRecordSizeMax = 10485760;

// The most bytes of data that a record of this storage can have, and why, in words that end a
// sentence: which setting allows no more, and what to do.
struct RecordLimit {
    std::uint32_t dataSizeMax;
    std::string reason;
};
RecordLimit RecordLimitOf(std::string_view conn);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_CONN_STRING_H
