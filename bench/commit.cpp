// Measures how long a caller waits for a commit; part of bench_append. A transaction has 10 records
// of 100 bytes, and every commit flushes. Runs with the synchronous and the asynchronous writer,
// and again with write_through, where every write waits for the disk. p50_us and p999_us are the
// median and the 99.9th percentile of the time of one Commit, in microseconds.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <utility>
#include <vector>

#include "bench_storage.h"

namespace k9erepl::bench {

namespace {

constexpr int kTransactions = 4000;
constexpr int kRecordsEach = 10;
constexpr const char* kEachCommit =
    "flush_mode=PerTrans;flush_trans_num=1;flush_timeout=600000;file_size_delta=16;";

using Clock = std::chrono::steady_clock;
using Latencies = std::vector<double>;  // one for each Commit, in microseconds

// Runs the transactions and appends the time of each Commit to *latencies.
void Commit(void* handle, Latencies* latencies) {
    BenchRecord record;
    bool ok = true;
    for (int transaction = 0; transaction < kTransactions; ++transaction) {
        ok = K9eReplStorageBeginTransaction(handle) == RC_OK && ok;
        for (int rec = 0; rec < kRecordsEach; ++rec) {
            ok = K9eReplStorageInsert(handle, record.Get()) == RC_OK && ok;
        }
        const auto began = Clock::now();
        ok = K9eReplStorageCommit(handle) == RC_OK && ok;
        const std::chrono::duration<double, std::micro> took = Clock::now() - began;
        latencies->push_back(took.count());
    }
    Require(ok, "committing");
}

double Percentile(Latencies& latencies, double share) {
    const auto rank = static_cast<std::ptrdiff_t>(share * static_cast<double>(latencies.size()));
    const auto nth = latencies.begin() + rank;
    std::nth_element(latencies.begin(), nth, latencies.end());
    return *nth;
}

// Does not time the opening and the closing. Closing waits until everything queued is written;
// drain_ms is how long that takes.
void CommitTo(benchmark::State& state, const std::string& settings) {
    Latencies latencies;
    latencies.reserve(kTransactions * 64);
    std::chrono::duration<double, std::milli> draining{};
    for (auto _ : state) {
        state.PauseTiming();
        BenchFile target;
        const std::string connStr = target.ConnStr(kEachCommit + settings);
        Require(K9eReplStorageCreate(connStr.c_str(), 0) == RC_OK, "creating the storage");
        std::optional<BenchHandle> storage(std::in_place, connStr);
        storage->Load();
        state.ResumeTiming();
        Commit(storage->Get(), &latencies);
        state.PauseTiming();
        const auto began = Clock::now();
        storage.reset();
        draining += Clock::now() - began;
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kTransactions * kRecordsEach);
    state.counters["drain_ms"] = draining.count() / static_cast<double>(state.iterations());
    state.counters["p50_us"] = Percentile(latencies, 0.5);
    state.counters["p999_us"] = Percentile(latencies, 0.999);
}

void CommitSync(benchmark::State& state) {
    CommitTo(state, "async_mode=no");
}
void CommitAsync(benchmark::State& state) {
    CommitTo(state, "async_mode=yes");
}
void CommitSyncThrough(benchmark::State& state) {
    CommitTo(state, "async_mode=no;write_through=yes");
}
void CommitAsyncThrough(benchmark::State& state) {
    CommitTo(state, "async_mode=yes;write_through=yes");
}

BENCHMARK(CommitSync)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(CommitAsync)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(CommitSyncThrough)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(CommitAsyncThrough)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

}  // namespace k9erepl::bench
