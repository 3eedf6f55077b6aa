// Checks connection strings for typing errors, and reads the few settings that the tool itself
// needs with the library's own functions. The command line checks every --conn.
#ifndef K9EREPL_K9REPL_CONN_STRING_H
#define K9EREPL_K9REPL_CONN_STRING_H

#include <cstdint>
#include <string>
#include <string_view>

#include "format/storage_file_format.h"

namespace k9repl {

// Returns an empty text if every item of `conn` is a known key that is given once, has a value of
// the right kind and has an effect. Otherwise returns a sentence that names the item and, for an
// unknown key or word, the nearest known one. The library checks the ranges of numbers.
std::string WhatIsWrongWith(std::string_view conn);

// The value of `key`; empty if it is absent.
std::string ConnValue(const std::string& conn, const char* key);

// The storage file's path as `conn` gives it; empty if it is absent.
std::string StoragePath(const std::string& conn);

// The index file's path: index_file, or a path derived from file; empty if there is no index file.
std::string IndexPath(const std::string& conn);

// "block_size=200", followed by ", the default" if `conn` does not set it.
std::string BlockSizeInWords(const std::string& conn);

using k9erepl::kFileRecordSizeMax;

// The largest record that a storage takes, and why.
struct RecordLimit {
    std::uint32_t dataSizeMax;  // bytes of data, inclusive
    std::string reason;         // ends a sentence: which setting is the limit, and what to do
};
RecordLimit RecordLimitOf(const std::string& conn);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_CONN_STRING_H
