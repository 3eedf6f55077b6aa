// Clears old revisions. Measures a squeeze; its baseline copies the bytes that the squeeze keeps
// with `cp` and flushes the copy. Also measures logical clears in the middle of files of 100 MB,
// 1 GB and 4 GB, without the files above K9EREPL_BENCH_MAX_MB: their cost must not depend on the
// file's length.
#include <benchmark/benchmark.h>
#include <k9erepl/storage.h>

#include <cstdlib>
#include <filesystem>
#include <map>

#include "bench_storage.h"
#include "ratio_reporter.h"

namespace k9erepl::bench {

namespace {

namespace fs = std::filesystem;

constexpr const char* kSettings = "cache_type=Last10;flush_mode=PerTrans;flush_trans_num=10";
constexpr i64 kSqueezedMb = 400;
constexpr i64 kBytesPerMb = 1'000'000;
constexpr i64 kDefaultMaxMb = 4000;

i64 RecordsOf(i64 megabytes) {
    return megabytes * kBytesPerMb / kRecordSize;
}

void FillFile(const BenchFile& file, i64 records) {
    const std::string connStr = file.ConnStr(kSettings);
    Require(K9eReplStorageCreate(connStr.c_str(), 0) == RC_OK, "creating the storage");
    BenchHandle storage(connStr);
    storage.Load();
    Append(storage.Get(), static_cast<int>(records));
}

// Returns the file of that size, which all benchmarks of the program share. Fills it at the first
// call.
const BenchFile& FilledFile(i64 megabytes) {
    static std::map<i64, BenchFile> files;
    const auto [entry, added] = files.try_emplace(megabytes);
    if (added) {
        FillFile(entry->second, RecordsOf(megabytes));
    }
    return entry->second;
}

void Run(const std::string& command) {
    Require(std::system(command.c_str()) == 0, command.c_str());
}

// Copies the file with the system's own tool. As in a squeeze, the copy replaces an older file only
// when it is complete, so the disk holds both until then.
void Copy(benchmark::State& state, bool sync) {
    const BenchFile& file = FilledFile(kSqueezedMb);
    const std::string copy = file.Path() + ".copy";
    const std::string unfinished = copy + ".new";
    std::string command = "cp --reflink=never '" + file.Path() + "' '" + unfinished + "'";
    command += sync ? " && sync '" + unfinished + "'" : "";
    for (auto _ : state) {
        Run(command);
        state.PauseTiming();
        fs::rename(unfinished, copy);
        state.ResumeTiming();
    }
    fs::remove(copy);
    state.SetItemsProcessed(state.iterations() * RecordsOf(kSqueezedMb));
}
void CopyAndSync(benchmark::State& state) {
    Copy(state, true);
}
void CopyToPageCache(benchmark::State& state) {
    Copy(state, false);
}

// Removes the first record again and again. Each time all other records are copied.
void Squeeze(benchmark::State& state) {
    BenchHandle storage(FilledFile(kSqueezedMb).ConnStr(kSettings));
    storage.Load();
    static i64 rev = 1;
    for (auto _ : state) {
        Require(K9eReplStorageClearOldRev(storage.Get(), ++rev, K9EREPL_CLEAR_SQUEEZE) == RC_OK,
                "squeezing");
    }
    state.SetItemsProcessed(state.iterations() * RecordsOf(kSqueezedMb));
}

// Clears one more record in the middle of the file each time. The first clear, which drops half of
// the blocks, is not timed.
void ClearLogically(benchmark::State& state, i64 megabytes) {
    static std::map<i64, i64> revs;
    BenchHandle storage(FilledFile(megabytes).ConnStr(kSettings));
    storage.Load();
    i64& rev = revs.try_emplace(megabytes, RecordsOf(megabytes) / 2).first->second;
    const auto clear = [&] {
        Require(K9eReplStorageClearOldRev(storage.Get(), ++rev, K9EREPL_CLEAR_LOGICAL) == RC_OK,
                "clearing");
    };
    clear();
    for (auto _ : state) {
        clear();
    }
}

i64 MaxMegabytes() {
    const char* text = std::getenv("K9EREPL_BENCH_MAX_MB");
    return text == nullptr ? kDefaultMaxMb : std::atoll(text);
}

BENCHMARK(CopyAndSync)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(CopyToPageCache)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Squeeze)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

void RegisterLogicalClears() {
    for (const i64 megabytes : {100, 1000, 4000}) {
        if (megabytes <= MaxMegabytes()) {
            const std::string name = "ClearLogically/" + std::to_string(megabytes) + "MB";
            benchmark::RegisterBenchmark(
                name.c_str(),
                [megabytes](benchmark::State& state) { ClearLogically(state, megabytes); })
                ->Unit(benchmark::kMicrosecond)
                ->UseRealTime();
        }
    }
}

}  // namespace k9erepl::bench

int main(int argc, char** argv) {
    k9erepl::bench::RegisterLogicalClears();
    return k9erepl::bench::RunWithRatios(argc, argv, "CopyAndSync");
}
