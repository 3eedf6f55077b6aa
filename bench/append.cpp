// Appends records of 100 bytes: 100 records in a transaction, 10 transactions in a flush. The
// baseline copies the same bytes into blocks and makes one write for each flush.
#include <benchmark/benchmark.h>

#include <cstring>

#include "bench_storage.h"
#include "platform/file.h"
#include "ratio_reporter.h"

namespace k9erepl::bench {

namespace {

constexpr int kRecords = 500'000;
constexpr const char* kSettings = "flush_mode=PerTrans;flush_trans_num=10;flush_timeout=600000";

void CopyAndWrite(benchmark::State& state) {
    constexpr u32 kCommitSize = 32;
    constexpr u32 kPerFlush = kPerTransaction * kTransactionsPerFlush;
    constexpr u32 kBlockSize = 1 << 20;
    std::vector<u8> block(kBlockSize + kCommitSize);
    std::vector<u8> record(kRecordSize, 'x');
    for (auto _ : state) {
        state.PauseTiming();
        BenchFile target;
        platform::File file;
        Require(file.Open(target.Path().c_str(),
                          {.disposition = platform::FileDisposition::kCreateNew}),
                "creating the baseline's file");
        state.ResumeTiming();
        u32 used = 0;
        u32 written = 0;
        for (u32 done = 1; done <= kRecords; ++done) {
            std::memcpy(block.data() + used, record.data(), kRecordSize);
            used += kRecordSize;
            if (done % kPerFlush == 0 || used + kRecordSize > kBlockSize) {
                u32 put = 0;
                const u32 size = used - written + kCommitSize;
                Require(file.Write(block.data() + written, size, &put), "writing the baseline");
                written = used;
            }
            if (used + kRecordSize > kBlockSize) {
                used = 0;
                written = 0;
            }
        }
        state.PauseTiming();
        file.Close();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kRecords);
}

void AppendTo(benchmark::State& state, const std::string& settings) {
    for (auto _ : state) {
        state.PauseTiming();
        {
            BenchFile target;
            const std::string connStr = target.ConnStr(settings);
            Require(K9eReplStorageCreate(connStr.c_str(), 0) == RC_OK, "creating the storage");
            BenchHandle storage(connStr);
            storage.Load();
            state.ResumeTiming();
            Append(storage.Get(), kRecords);
            state.PauseTiming();
        }
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kRecords);
}

void AppendPerTrans(benchmark::State& state) {
    AppendTo(state, kSettings);
}

void AppendPerTransGrown(benchmark::State& state) {
    AppendTo(state, std::string(kSettings) + ";file_size_delta=16");
}

BENCHMARK(CopyAndWrite)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(AppendPerTrans)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(AppendPerTransGrown)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

}  // namespace k9erepl::bench

int main(int argc, char** argv) {
    return k9erepl::bench::RunWithRatios(argc, argv, "CopyAndWrite");
}
