// Changes files as a hostile hand or a broken machine might: single fields, whole items, stretches
// of bytes. A seed makes one change.
#ifndef K9EREPL_TESTS_RELIABILITY_FILE_MUTATIONS_H
#define K9EREPL_TESTS_RELIABILITY_FILE_MUTATIONS_H

#include <string>
#include <vector>

#include "model/numbers.h"
#include "reliability/file_fields.h"

namespace k9erepl::reliability {

// Changes `bytes`, whose fields were `fields` before any change, and tells what it did.
std::string Mutate(std::string& bytes, const std::vector<FileField>& fields, model::Random& random);

// For a storage file only: items moved, doubled, taken out, or changed in several fields that have
// to agree.
std::string MutateItems(std::string& bytes, const SlowScan& scan, model::Random& random);

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_FILE_MUTATIONS_H
