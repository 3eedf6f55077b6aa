// Connection strings: whether one says what its author meant, and the few settings that the tool
// itself needs, read by the library's own functions. The command line checks every --conn.
#ifndef K9EREPL_K9REPL_CONN_STRING_H
#define K9EREPL_K9REPL_CONN_STRING_H

#include <cstdint>
#include <string>
#include <string_view>

#include "format/storage_file_format.h"

namespace k9repl {

// Empty when every item of `conn` is a known key with a value of its kind, given once, and with an
// effect; else a sentence that names the item and the nearest known one. Ranges of numbers are the
// library's to judge.
std::string WhatIsWrongWith(std::string_view conn);

// The value of `key`, or an empty text when it is absent.
std::string ConnValue(const std::string& conn, const char* key);

// The storage file's path, as it stands.
std::string StoragePath(const std::string& conn);

// The index file's path: index_file, else derived from file; empty when there is none.
std::string IndexPath(const std::string& conn);

// "block_size=200", with ", the default" behind it where `conn` has none.
std::string BlockSizeInWords(const std::string& conn);

using k9erepl::kFileRecordSizeMax;

// The most bytes of data that a record of this storage can have, and why, in words that end a
// sentence: which setting allows no more, and what to do.
struct RecordLimit {
    std::uint32_t dataSizeMax;
    std::string reason;
};
RecordLimit RecordLimitOf(const std::string& conn);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_CONN_STRING_H
