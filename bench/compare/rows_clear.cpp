// The rows that clear old records logically while the first kept record is still in memory, after
// transactions of several sizes.
#include <fmt/format.h>

#include "compare/posix/raw_file.h"
#include "compare/row.h"
#include "compare/work.h"

namespace k9erepl::bench {

namespace {

constexpr int kFilled = 200'000;
constexpr int kClears = 200;  // in one measurement
constexpr i64 kInClear = 50;  // records

double WriteCommitBlocks(const std::string& folder) {
    const BenchFile file(folder);
    RawFile written(file.Path(), RawFile::Mode::kCreate);
    const u8 commitBlock[kCommitSize] = {};
    return MedianOf(kClears, [&] {
        const Stopwatch watch;
        written.Write(commitBlock, sizeof(commitBlock));
        return watch.Microseconds();
    });
}

double Clear(const std::string& folder, int perTransaction) {
    const OurStorage storage(folder, std::string(kAppendSettings) + "cache_type=Last100");
    Append(storage.Handle(), kFilled, perTransaction);
    i64 rev = kFilled / 4;
    const auto clear = [&] {
        rev += kInClear;
        const Stopwatch watch;
        Require(K9eReplStorageClearOldRev(storage.Handle(), rev, K9EREPL_CLEAR_LOGICAL) == RC_OK,
                "clearing");
        return watch.Microseconds();
    };
    clear();  // drops a quarter of the blocks
    return MedianOf(kClears, clear);
}

}  // namespace

void AddClearRows(const Context& context, Rows* rows) {
    const std::string folder = context.memoryFolder;
    for (const int perTransaction : {1, 100, 10'000}) {
        Row row;
        row.id = fmt::format("clear-{}", perTransaction);
        row.title = fmt::format("logical clear after transactions of {}", perTransaction);
        row.unit = "µs a clear";
        row.limit = "one write(2) of 32 bytes";
        row.contenders = {
            {"limit", Role::kLimit, [=] { return WriteCommitBlocks(folder); }},
            {"this library", Role::kOurs, [=] { return Clear(folder, perTransaction); }}};
        row.marks = {{Mark::Kind::kAtMost, 60, ""}};
        rows->push_back(std::move(row));
    }
}

}  // namespace k9erepl::bench
