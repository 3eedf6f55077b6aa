// The choices of a load; see the header.
#include "engine/load_plan.h"

#include <algorithm>
#include <cassert>

#include "format/storage_file_format.h"

namespace k9erepl {

IndexChoice ChooseIndexUse(const IndexFileContent& index, const OpenSettings& settings) {
    const std::size_t count = index.entries.size();
    if (count == 0 || index.blockSize == 0) {
        return {};
    }
    if (!settings.MayEvict()) {
        return {.startEntry = 0, .testCount = 1};
    }
    const u64 cacheBytes = u64{settings.cacheBlocks} * settings.blockSize;
    const u64 fromEnd = std::min<u64>(cacheBytes / index.blockSize + 1, count);
    const std::size_t start = count - static_cast<std::size_t>(fromEnd);
    assert(start < count);
    return {.startEntry = start, .testCount = start + 1};
}

bool IndexFitsFile(const IndexFileContent& index, i64 fileSize) {
    return index.blockSize != 0 && !index.entries.empty() &&
           index.entries.front().offset >= kFirstItemOffset &&
           index.entries.back().offset <= fileSize - kRecordHeadSize;
}

LoadPlan MakeLoadPlan(const IndexFileContent& index, const IndexChoice& choice) {
    assert(choice.testCount > 0 && choice.startEntry < index.entries.size());
    LoadPlan plan;
    const auto start = index.entries.begin() + static_cast<std::ptrdiff_t>(choice.startEntry);
    plan.startOffset = start->offset;
    plan.keptOnDisk.assign(index.entries.begin(), start);
    plan.first = index.entries.front();
    return plan;
}

}  // namespace k9erepl
