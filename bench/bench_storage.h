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

// The folder in which the benchmarks make their files unless they are given another:
// K9EREPL_BENCH_DIR or, if that is not set, the one where the system keeps temporary files.
std::string DefaultFolder();

// The path of a storage file in a folder of its own. The constructor makes that folder in `parent`;
// the destructor removes it with its files.
class BenchFile {
  public:
    explicit BenchFile(const std::string& parent = DefaultFolder());
    ~BenchFile();
    BenchFile(const BenchFile&) = delete;
    BenchFile& operator=(const BenchFile&) = delete;

    const std::string& Path() const { return m_path; }
    const std::string& Folder() const { return m_folder; }
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

// Inserts `count` records with `dataSize` bytes of data, rounded up to whole transactions of
// `perTransaction` records.
void Append(void* handle, int count, int perTransaction = kPerTransaction,
            u32 dataSize = kDataSize);

}  // namespace k9erepl::bench

#endif  // K9EREPL_BENCH_BENCH_STORAGE_H
