// What the benchmarks have in common: records of a fixed size, a storage in a temporary folder, and
// a check that ends the program if a step fails, because a failed run measures nothing.
#ifndef K9EREPL_BENCH_BENCH_STORAGE_H
#define K9EREPL_BENCH_BENCH_STORAGE_H

#include <k9erepl/storage.h>

#include <string>
#include <vector>

#include "platform/int_types.h"

namespace k9erepl::bench {

inline constexpr u32 kDataSize = 100;               // bytes of data in a record
inline constexpr u32 kRecordSize = kDataSize + 24;  // bytes of a record in the file, head included
inline constexpr int kPerTransaction = 100;         // records
inline constexpr int kTransactionsPerFlush = 10;

// Unless `holds`, prints `what` and ends the program.
void Require(bool holds, const char* what);

// A client's record with `dataSize` bytes of data.
class BenchRecord {
  public:
    explicit BenchRecord(u32 dataSize = kDataSize);
    K9eReplRec* Get() { return reinterpret_cast<K9eReplRec*>(m_bytes.data()); }

  private:
    std::vector<u8> m_bytes;
};

// The path of a storage file in a folder of its own. The constructor makes the folder in
// K9EREPL_BENCH_DIR or, if that is not set, where the system keeps temporary files; the destructor
// removes it with its files.
class BenchFile {
  public:
    BenchFile();
    ~BenchFile();
    BenchFile(const BenchFile&) = delete;
    BenchFile& operator=(const BenchFile&) = delete;

    const std::string& Path() const { return m_path; }
    // "file=<path>;", followed by `settings`.
    std::string ConnStr(const std::string& settings) const;

  private:
    std::string m_folder;
    std::string m_path;
};

// A storage handle. The constructor opens the storage, the destructor closes it.
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

// Inserts `count` records, rounded up to whole transactions of `perTransaction` records.
void Append(void* handle, int count, int perTransaction = kPerTransaction);

}  // namespace k9erepl::bench

#endif  // K9EREPL_BENCH_BENCH_STORAGE_H
