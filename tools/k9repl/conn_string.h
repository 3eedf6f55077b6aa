// The few settings of a connection string that the tool itself needs, read by the library's rules
// (docs/configuration.md): first item with the key wins, blanks around keys do not count.
#ifndef K9EREPL_K9REPL_CONN_STRING_H
#define K9EREPL_K9REPL_CONN_STRING_H

#include <cstdint>
#include <string>
#include <string_view>

namespace k9repl {

// The value of `key`, or an empty text when it is absent.
std::string ConnValue(std::string_view conn, std::string_view key);

// The storage file's path, as it stands.
std::string StoragePath(std::string_view conn);

// The index file's path: index_file, else derived from file; empty when there is none.
std::string IndexPath(std::string_view conn);

// The largest data size in bytes that a record of this storage can have.
std::uint32_t RecordSizeMax(std::string_view conn);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_CONN_STRING_H
