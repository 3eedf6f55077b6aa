// Loads a storage file of 100-byte records. The baseline reads the same file in pieces of 10 MiB
// and walks over its items.
#include <benchmark/benchmark.h>
#include <k9erepl/storage_interfaces.h>

#include <cstring>
#include <filesystem>

#include "bench_storage.h"
#include "platform/file.h"
#include "ratio_reporter.h"

namespace k9erepl::bench {

namespace {

constexpr int kRecords = 1'000'000;
constexpr const char* kSettings = "cache_type=Last10;flush_mode=PerTrans;flush_trans_num=10";

// Returns the file that all benchmarks of the program share. Fills it at the first call.
const BenchFile& FilledFile() {
    static const BenchFile file;
    static const bool filled = [] {
        const std::string connStr = file.ConnStr(kSettings);
        Require(K9eReplStorageCreate(connStr.c_str(), 0) == RC_OK, "creating the storage");
        BenchHandle storage(connStr);
        storage.Load();
        Append(storage.Get(), kRecords);
        return true;
    }();
    Require(filled, "filling the storage");
    return file;
}

void ReadAndWalk(benchmark::State& state) {
    constexpr u32 kPiece = 10 * 1024 * 1024;
    constexpr u32 kRecordSignature = 0x7B3A2D2A;
    constexpr u32 kCommitSize = 32;
    const BenchFile& target = FilledFile();
    std::vector<u8> piece(kPiece);
    for (auto _ : state) {
        platform::File file;
        Require(file.Open(target.Path().c_str(), {.access = platform::FileAccess::kRead}) &&
                    file.Seek(1024),
                "opening the file");
        int records = 0;
        u32 kept = 0;
        u32 got = 0;
        while (file.Read(piece.data() + kept, kPiece - kept, &got) && got > 0) {
            const u32 end = kept + got;
            u32 offset = 0;
            while (end - offset >= kRecordSize) {
                u32 head[2];
                std::memcpy(head, piece.data() + offset, sizeof(head));
                const bool isRecord = head[0] == kRecordSignature;
                records += isRecord ? 1 : 0;
                offset += isRecord ? head[1] : kCommitSize;
            }
            kept = end - offset;
            std::memmove(piece.data(), piece.data() + offset, kept);
        }
        Require(records == kRecords, "walking over every record");
    }
    state.SetItemsProcessed(state.iterations() * kRecords);
}

void ScanFile(benchmark::State& state) {
    BenchHandle storage(FilledFile().ConnStr(kSettings));
    storage.Load();
    void* file = nullptr;
    Require(K9eReplStorageGetLLStorage(storage.Get(), &file) == RC_OK, "reaching the file");
    for (auto _ : state) {
        int records = 0;
        const u32 rc = static_cast<IK9eReplLLStorage*>(file)->ScanFile(
            [](u64, const K9eReplRec*, void* ctx) -> u32 {
                ++*static_cast<int*>(ctx);
                return RC_OK;
            },
            [](void*, i64, i64) -> u32 { return RC_OK; }, &records);
        Require(rc == RC_OK && records == kRecords, "scanning the file");
    }
    state.SetItemsProcessed(state.iterations() * kRecords);
}

void Load(benchmark::State& state, bool keepIndex) {
    const BenchFile& target = FilledFile();
    for (auto _ : state) {
        state.PauseTiming();
        if (!keepIndex) {
            std::filesystem::remove(target.Path() + "-idx");
        }
        {
            BenchHandle storage(target.ConnStr(kSettings));
            state.ResumeTiming();
            storage.Load();
            state.PauseTiming();
        }
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kRecords);
}

void LoadWithoutIndex(benchmark::State& state) {
    Load(state, false);
}
void LoadWithIndex(benchmark::State& state) {
    Load(state, true);
}

BENCHMARK(ReadAndWalk)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(ScanFile)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(LoadWithoutIndex)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(LoadWithIndex)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

}  // namespace k9erepl::bench

int main(int argc, char** argv) {
    return k9erepl::bench::RunWithRatios(argc, argv, "ReadAndWalk");
}
