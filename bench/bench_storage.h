// What the benchmarks share: records of a fixed size, a storage in a temporary folder, and a check
// that ends the program, for a failed run measures nothing.
#ifndef K9EREPL_BENCH_BENCH_STORAGE_H
#define K9EREPL_BENCH_BENCH_STORAGE_H

#include <k9erepl/storage.h>

#include <string>
#include <vector>

#include "platform/int_types.h"

namespace k9erepl::bench {

inline constexpr u32 kDataSize = 100;
inline constexpr u32 kRecordSize = kDataSize + 24;
inline constexpr int kPerTransaction = 100;
inline constexpr int kTransactionsPerFlush = 10;

// Ends the program with `what` unless `holds`.
void Require(bool holds, const char* what);

// A client's record with kDataSize bytes of data.
class BenchRecord {
  public:
    BenchRecord();
    K9eReplRec* Get() { return reinterpret_cast<K9eReplRec*>(m_bytes.data()); }

  private:
    std::vector<u8> m_bytes;
};

// A storage file in a folder of its own, which goes with the object. The folder lies in
// K9EREPL_BENCH_DIR, else where the system keeps temporary files.
class BenchFile {
  public:
    BenchFile();
    ~BenchFile();
    BenchFile(const BenchFile&) = delete;
    BenchFile& operator=(const BenchFile&) = delete;

    const std::string& Path() const { return m_path; }
    // "file=<path>;" and `settings`.
    std::string ConnStr(const std::string& settings) const;

  private:
    std::string m_folder;
    std::string m_path;
};

// Creates (with a file), opens and loads; closes at the end.
class BenchHandle {
  public:
    explicit BenchHandle(const std::string& connStr);
    ~BenchHandle() { K9eReplStorageClose(m_handle); }
    BenchHandle(const BenchHandle&) = delete;
    BenchHandle& operator=(const BenchHandle&) = delete;

    void Load();
    void* Get() const { return m_handle; }

  private:
    void* m_handle = nullptr;
};

// Inserts `count` records in transactions of kPerTransaction.
void Append(void* handle, int count);

}  // namespace k9erepl::bench

#endif  // K9EREPL_BENCH_BENCH_STORAGE_H
