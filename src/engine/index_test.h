// Samples the entries of an index file against the storage file before a load relies on them.
#ifndef K9EREPL_ENGINE_INDEX_TEST_H
#define K9EREPL_ENGINE_INDEX_TEST_H

#include <span>

#include "format/index_file_format.h"
#include "platform/int_types.h"
#include "solid/solid_storage.h"

namespace k9erepl {

// At most about this many entries are looked at, spread evenly; the first always is, and the last,
// at which a load begins to read.
inline constexpr std::size_t kIndexTestSamples = 3000;

// RC_OK when a record with the entry's revision lies at each sampled offset, else the result of
// the first check that failed.
[[nodiscard]] u32 TestIndex(CSolidStorage& file, std::span<const TIndexEntry> entries);

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_INDEX_TEST_H
