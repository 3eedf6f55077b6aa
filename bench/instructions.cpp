// The program behind bench/instructions.sh: does each path of the library twice, with a small and
// a large number of records, inside MeasuredWork. Callgrind counts the instructions of that
// function alone and writes them down each time it returns; the program prints which path and
// number it was.
#include <k9erepl/storage_interfaces.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <random>

#include "bench_storage.h"

// The name that instructions.sh gives to Callgrind. A call that the compiler could look through, or
// a mangled name, would not be found.
extern "C" [[gnu::noinline]] void MeasuredWork(const std::function<void(int)>& work, int count);

void MeasuredWork(const std::function<void(int)>& work, int count) {
    work(count);
}

namespace k9erepl::bench {

namespace {

constexpr const char* kSettings =
    "cache_type=Last4;flush_mode=PerTrans;flush_trans_num=10;flush_timeout=600000";
constexpr int kRecordsInMemory = 4 * 8456;  // four blocks of the default size
// The difference is one block's records, so it has its share of the change to another block.
constexpr int kFewRecords = 2'000;
constexpr int kManyRecords = kFewRecords + 8'500;
constexpr int kFewCalls = 20;
constexpr int kManyCalls = 120;
constexpr int kInRange = 100;  // records

void Measure(const char* path, int count, const std::function<void(int)>& work) {
    (void)std::printf("%s %d\n", path, count);
    MeasuredWork(work, count);
}

void MeasureRecords(const char* path, const std::function<void(int)>& work) {
    Measure(path, kFewRecords, work);
    Measure(path, kManyRecords, work);
}

void MeasureCalls(const char* path, const std::function<void(int)>& work) {
    Measure(path, kFewCalls, work);
    Measure(path, kManyCalls, work);
}

void InsertAlone(void* handle, int count) {
    BenchRecord record;
    bool ok = true;
    for (int done = 0; done < count; ++done) {
        ok = K9eReplStorageInsert(handle, record.Get()) == RC_OK && ok;
    }
    Require(ok, "inserting records");
}

void MeasureAppends(void* handle) {
    for (const int perTransaction : {1, 10, 100}) {
        const std::string path = "append-" + std::to_string(perTransaction);
        MeasureRecords(path.c_str(), [=](int count) { Append(handle, count, perTransaction); });
    }
    MeasureRecords("insert-alone", [=](int count) { InsertAlone(handle, count); });
}

u32 K9EREPL_CALL CountRecord(const K9eReplRec* /*rec*/, void* context) {
    ++*static_cast<int*>(context);
    return 0;
}

void Enumerate(void* handle, i64 fromRev, int count) {
    int seen = 0;
    Require(K9eReplStorageEnumRecords(handle, fromRev, fromRev + count - 1, &CountRecord, &seen) ==
                    RC_OK &&
                seen == count,
            "enumerating records");
}

// Enumerates `calls` ranges of `inRange` records, each at a place of its own among the `places`
// revisions from `lowest` on.
void EnumerateRanges(void* handle, i64 lowest, int places, int inRange, int calls) {
    std::minstd_rand random(1);
    for (int call = 0; call < calls; ++call) {
        const i64 place = static_cast<i64>(random()) % (places - inRange);
        Enumerate(handle, lowest + place, inRange);
    }
}

// Measures the same reading in memory and in the file. The names end with `where`.
void MeasureReads(void* handle, const std::string& where, i64 lowest, int places) {
    MeasureRecords(("scan-" + where).c_str(), [=](int count) { Enumerate(handle, lowest, count); });
    for (const int inRange : {kInRange, 1}) {
        const std::string path = "range-" + std::to_string(inRange) + "-" + where;
        // The first visit of each place may leave notes that the later ones use.
        EnumerateRanges(handle, lowest, places, inRange, kManyCalls);
        MeasureCalls(path.c_str(),
                     [=](int calls) { EnumerateRanges(handle, lowest, places, inRange, calls); });
    }
}

void MeasureLoadScan(void* handle) {
    void* file = nullptr;
    Require(K9eReplStorageGetLLStorage(handle, &file) == RC_OK, "reaching the file");
    const auto stopAtZero = [](u64 /*offset*/, const K9eReplRec* /*rec*/, void* left) -> u32 {
        return --*static_cast<int*>(left) == 0 ? RC_ENUM_STOP : RC_OK;
    };
    const auto passOver = [](void* /*left*/, i64 /*clearRev*/, i64 /*commitRev*/) -> u32 {
        return RC_OK;
    };
    MeasureRecords("load-scan", [&](int count) {
        const u32 rc =
            static_cast<IK9eReplLLStorage*>(file)->ScanFile(stopAtZero, passOver, &count);
        Require(rc == RC_ENUM_STOP && count == 0, "scanning the file");
    });
}

void MeasureLoadOf(int records) {
    BenchFile target;
    const std::string connStr = target.ConnStr(kSettings);
    Require(K9eReplStorageCreate(connStr.c_str(), 0) == RC_OK, "creating the storage");
    {
        BenchHandle filled(connStr);
        filled.Load();
        Append(filled.Get(), records);
    }
    std::filesystem::remove(target.Path() + "-idx");
    BenchHandle storage(connStr);
    Measure("load", records, [&](int /*records*/) { storage.Load(); });
}

// Loads files that have no index file.
void MeasureLoads() {
    MeasureLoadOf(kFewRecords);
    MeasureLoadOf(kManyRecords);
}

// Clears ten more records with each call; the first one that is kept lies in memory.
void MeasureClears(void* handle, i64 lowest) {
    i64 rev = lowest;
    MeasureCalls("logical-clear", [&](int calls) {
        bool ok = true;
        for (int call = 0; call < calls; ++call) {
            rev += 10;
            ok = K9eReplStorageClearOldRev(handle, rev, K9EREPL_CLEAR_LOGICAL) == RC_OK && ok;
        }
        Require(ok, "clearing records");
    });
}

void MeasureAll() {
    BenchFile target;
    const std::string connStr = target.ConnStr(
        "cache_type=Last4;flush_mode=PerTrans;flush_trans_num=10;"
        "flush_timeout=600000");
    Require(K9eReplStorageCreate(connStr.c_str(), 0) == RC_OK, "creating the storage");
    BenchHandle storage(connStr);
    storage.Load();
    // From here on blocks of memory come from those that the oldest records leave.
    Append(storage.Get(), kRecordsInMemory + kRecordsInMemory / 2);
    MeasureAppends(storage.Get());
    i64 nextRev = 0;
    Require(K9eReplStorageGetNextRev(storage.Get(), &nextRev) == RC_OK, "asking the revision");
    const i64 inMemory = nextRev - kRecordsInMemory / 2;
    MeasureReads(storage.Get(), "memory", inMemory, kRecordsInMemory / 2);
    MeasureReads(storage.Get(), "file", 1, kRecordsInMemory / 2);
    MeasureLoadScan(storage.Get());
    MeasureClears(storage.Get(), inMemory);
    MeasureLoads();
}

}  // namespace

}  // namespace k9erepl::bench

int main() {
    k9erepl::bench::MeasureAll();
    return 0;
}
