// The row that asks the system how much memory a storage with cache_type=Last100 holds after it has
// written three times as much and has read from its file.
#include "compare/posix/process.h"
#include "compare/row.h"
#include "compare/work.h"

namespace k9erepl::bench {

namespace {

constexpr double kMebibyte = 1024.0 * 1024.0;

// Uses a small storage, so that pages of code and of libraries that are touched for the first time
// do not count.
void TouchCode(const std::string& folder) {
    const OurStorage storage(folder,
                             kAppendSettings + std::string("cache_type=Last1;block_size=200"));
    Append(storage.Handle(), 2 * kPerTransaction);
    Enumerate(storage.Handle(), 1, 100);
}

double ResidentOf(const std::string& folder, i64 blocks) {
    TouchCode(folder);
    const double before = ResidentMebibytes();
    const OurStorage storage(
        folder, std::string(kAppendSettings) + "cache_type=Last" + std::to_string(blocks));
    Append(storage.Handle(), static_cast<int>(3 * blocks * RecordsInBlock(kDataSize)));
    Enumerate(storage.Handle(), 1, 100);
    return ResidentMebibytes() - before;
}

}  // namespace

void AddMemoryRows(const Context& context, Rows* rows) {
    const std::string folder = context.memoryFolder;
    const i64 blocks = context.quick ? 20 : 100;
    Row row;
    row.id = "memory";
    row.title = "resident memory, cache_type=Last" + std::to_string(blocks);
    row.unit = "MiB";
    row.limit = "the blocks and one read buffer";
    row.contenders = {
        {"limit", Role::kLimit,
         [=] { return static_cast<double>(blocks * kBlockSize + kPieceSize) / kMebibyte; }},
        {"this library", Role::kOurs, [=] { return ResidentOf(folder, blocks); }}};
    row.marks = {{Mark::Kind::kTimesLimit, 1.03, ""}};
    rows->push_back(std::move(row));
}

}  // namespace k9erepl::bench
