// Enumerates records of 100 bytes from memory and from the file. The baseline walks over the same
// records in one buffer and calls the same client function.
#include <benchmark/benchmark.h>

#include <cstring>

#include "bench_storage.h"
#include "ratio_reporter.h"

namespace k9erepl::bench {

namespace {

constexpr int kRecords = 500'000;

u32 K9EREPL_CALL AddUp(const K9eReplRec* rec, void* context) {
    *static_cast<i64*>(context) += rec->rev + rec->dataSize;
    return 0;
}

void BareWalk(benchmark::State& state) {
    std::vector<u8> packed(std::size_t{kRecords} * kRecordSize);
    for (std::size_t offset = 0; offset < packed.size(); offset += kRecordSize) {
        const u32 head[] = {0x7B3A2D2A, kRecordSize, 1, 0, 7, kDataSize};
        std::memcpy(packed.data() + offset, head, sizeof(head));
    }
    // As in the library, the function is known only at run time.
    K9eReplEnumCb callback = &AddUp;
    benchmark::DoNotOptimize(callback);
    for (auto _ : state) {
        i64 sum = 0;
        for (std::size_t offset = 0; offset < packed.size();) {
            u32 size = 0;
            std::memcpy(&size, packed.data() + offset + 4, sizeof(size));
            callback(reinterpret_cast<const K9eReplRec*>(packed.data() + offset + 8), &sum);
            offset += size;
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * kRecords);
}

void Enumerate(benchmark::State& state, void* handle) {
    for (auto _ : state) {
        i64 sum = 0;
        Require(K9eReplStorageEnumRecords(handle, 1, kRecords, &AddUp, &sum) == RC_OK,
                "enumerating");
        Require(sum == i64{kRecords} * (kRecords + 1) / 2 + i64{kRecords} * kDataSize,
                "enumerating every record");
    }
    state.SetItemsProcessed(state.iterations() * kRecords);
}

void FromMemory(benchmark::State& state) {
    BenchHandle storage("cache_type=AllInMem;flush_mode=NoFlush;file=:memory:");
    storage.Load();
    Append(storage.Get(), kRecords);
    Enumerate(state, storage.Get());
}

void FromFile(benchmark::State& state) {
    BenchFile target;
    const std::string connStr =
        target.ConnStr("cache_type=Last1;flush_mode=PerTrans;flush_trans_num=10");
    Require(K9eReplStorageCreate(connStr.c_str(), 0) == RC_OK, "creating the storage");
    BenchHandle storage(connStr);
    storage.Load();
    Append(storage.Get(), kRecords);
    Enumerate(state, storage.Get());
}

BENCHMARK(BareWalk)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(FromMemory)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(FromFile)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

}  // namespace k9erepl::bench

int main(int argc, char** argv) {
    return k9erepl::bench::RunWithRatios(argc, argv, "BareWalk");
}
