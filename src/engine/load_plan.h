// Decides from the index file how much of the storage file a load reads. These functions only
// choose and touch no file, so they are tested without files; the loader carries the choices out.
#ifndef K9EREPL_ENGINE_LOAD_PLAN_H
#define K9EREPL_ENGINE_LOAD_PLAN_H

#include <cstddef>
#include <vector>

#include "engine/open_settings.h"
#include "index/index_file.h"
#include "platform/int_types.h"

namespace k9erepl {

// The part of the index that a load would use.
struct IndexChoice {
    std::size_t startEntry = 0;  // loading begins at the offset of this entry
    // How many entries, from the first on, are to be tested before; 0: the index is of no use.
    std::size_t testCount = 0;
};

// With cache_type=LastN, loading starts so many entries before the end that they fill the cache,
// and the entries up to there are tested. With AllInMem it starts at the first entry, which alone
// is tested.
IndexChoice ChooseIndexUse(const IndexFileContent& index, const OpenSettings& settings);

// True when the index can belong to a storage file of `fileSize` bytes at all: it has a block size
// and entries, and the first and the last lie inside the file's items. Its size field and offsets
// are claims until then.
bool IndexFitsFile(const IndexFileContent& index, i64 fileSize);

// What a load reads. Without an index it reads everything, from the file's first record.
struct LoadPlan {
    i64 startOffset = 0;                  // where reading begins; 0: the file's first record
    std::vector<TIndexEntry> keptOnDisk;  // the blocks before startOffset, which stay in the file
    TIndexEntry first{};                  // the first entry of the index; zeros without an index

    // False when the file is read from its beginning.
    bool UsesIndex() const { return startOffset != 0; }
};

// The plan that uses `index` as `choice` says.
// REQUIRES: choice.testCount is above 0; choice.startEntry is an entry of `index`.
LoadPlan MakeLoadPlan(const IndexFileContent& index, const IndexChoice& choice);

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_LOAD_PLAN_H
