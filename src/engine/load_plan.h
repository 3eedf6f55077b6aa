// How much of the storage file a load reads, decided from the index file: pure choices, tested
// without files. The loader carries them out.
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
    std::size_t startEntry = 0;  // loading begins at this entry's offset
    std::size_t testCount = 0;   // the first entries are to be tested; 0: no use can be made of it
};

// With LastN, loading starts so many entries from the end that they fill the cache; entries up to
// there are tested. With AllInMem it starts at the first entry.
IndexChoice ChooseIndexUse(const IndexFileContent& index, const OpenSettings& settings);

// True when the index can belong to a storage file of `fileSize` bytes at all. Its size field and
// offsets are claims.
bool IndexFitsFile(const IndexFileContent& index, i64 fileSize);

// The way of a load. Without an index it reads everything, from the file's first record.
struct LoadPlan {
    i64 startOffset = 0;                  // 0: the file's first record
    std::vector<TIndexEntry> keptOnDisk;  // blocks before startOffset, which stay in the file
    TIndexEntry first{};                  // the index's first entry, when it is used

    bool UsesIndex() const { return startOffset != 0; }
};

LoadPlan MakeLoadPlan(const IndexFileContent& index, const IndexChoice& choice);

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_LOAD_PLAN_H
