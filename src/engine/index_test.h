// Samples the entries of an index file against the storage file before a load relies on them. The
// loader calls it; docs/index-file.md says what else speaks against an index.
#ifndef K9EREPL_ENGINE_INDEX_TEST_H
#define K9EREPL_ENGINE_INDEX_TEST_H

#include <span>

#include "format/index_file_format.h"
#include "platform/int_types.h"
#include "solid/solid_storage.h"
#include "support/result.h"

namespace k9erepl {

// About this many entries are looked at, at most, spread evenly. The first entry always is, and so
// is the last, where a load begins to read.
inline constexpr std::size_t kIndexTestSamples = 3000;

// RC_OK when a record with the entry's revision lies at each sampled offset, also for no entries.
// Otherwise returns the result of the first check that failed, which is logged:
// CSolidStorage::CheckRecordAt lists them. Needs the storage's lock; logs how long it took.
[[nodiscard]] ResultCode TestIndex(CSolidStorage& file, std::span<const TIndexEntry> entries);

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_INDEX_TEST_H
