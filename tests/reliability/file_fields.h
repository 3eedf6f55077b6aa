// Which field each byte of a storage or index file belongs to, as docs/storage-file.md and
// docs/index-file.md name them. Families change files field by field, and count by field.
#ifndef K9EREPL_TESTS_RELIABILITY_FILE_FIELDS_H
#define K9EREPL_TESTS_RELIABILITY_FILE_FIELDS_H

#include <string>
#include <vector>

#include "reliability/slow_reader.h"

namespace k9erepl::reliability {

struct FileField {
    const char* name = "";  // such as "record: size"
    std::size_t at = 0;
    std::size_t size = 0;

    bool IsNumber() const { return size == 4 || size == 8; }
};

// In the order of their places, without gaps. REQUIRES: `scan` is that of the whole file, which it
// does not refuse.
std::vector<FileField> FieldsOfStorage(const std::string& bytes, const SlowScan& scan);
// REQUIRES: an index file of whole entries.
std::vector<FileField> FieldsOfIndex(const std::string& bytes);

// The one that holds the byte at `at`. REQUIRES: there is one.
const FileField& FieldAt(const std::vector<FileField>& fields, std::size_t at);

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_FILE_FIELDS_H
