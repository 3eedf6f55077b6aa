// The benchmarks' storages; see the header.
#include "bench_storage.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>

namespace k9erepl::bench {

namespace fs = std::filesystem;

void Require(bool holds, const char* what) {
    if (!holds) {
        (void)std::fprintf(stderr, "benchmark failed: %s\n", what);
        std::exit(1);
    }
}

BenchRecord::BenchRecord(u32 dataSize) : m_bytes(sizeof(K9eReplRec) + dataSize) {
    Get()->userWord = 7;
    Get()->dataSize = dataSize;
    std::memset(Get()->data, 'x', dataSize);
}

std::string DefaultFolder() {
    const char* given = std::getenv("K9EREPL_BENCH_DIR");
    return given != nullptr ? given : fs::temp_directory_path().string();
}

BenchFile::BenchFile(const std::string& parent) {
    static std::atomic<int> ordinal{0};
    const std::string name =
        "k9erepl-bench-" + std::to_string(std::random_device{}()) + "-" + std::to_string(ordinal++);
    m_folder = (fs::path(parent) / name).string();
    fs::create_directories(m_folder);
    m_path = m_folder + "/bench.edb";
}

BenchFile::~BenchFile() {
    std::error_code ignored;
    fs::remove_all(m_folder, ignored);
}

std::string BenchFile::ConnStr(const std::string& settings) const {
    return "file=" + m_path + ";" + settings;
}

BenchHandle::BenchHandle(const std::string& connStr) {
    Require(K9eReplStorageOpen(connStr.c_str(), &m_handle) == RC_OK, "opening the storage");
}

void BenchHandle::Load() {
    Require(K9eReplStorageLoad(m_handle) == RC_OK, "loading the storage");
}

void Append(void* handle, int count, int perTransaction, u32 dataSize) {
    BenchRecord record(dataSize);
    bool ok = true;
    for (int done = 0; done < count; done += perTransaction) {
        ok = ok && K9eReplStorageBeginTransaction(handle) == RC_OK;
        for (int i = 0; i < perTransaction; ++i) {
            ok = ok && K9eReplStorageInsert(handle, record.Get()) == RC_OK;
        }
        ok = ok && K9eReplStorageCommit(handle) == RC_OK;
    }
    Require(ok, "appending records");
}

}  // namespace k9erepl::bench
