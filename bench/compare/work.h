// What the rows of bench/compare share: a stopwatch, a storage in a folder of its own, functions
// that receive records, and the walk over records in bytes that every limit for reading does.
#ifndef K9EREPL_BENCH_COMPARE_WORK_H
#define K9EREPL_BENCH_COMPARE_WORK_H

#include <chrono>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "bench_storage.h"

namespace k9erepl::bench {

inline constexpr u32 kHeadSize = 24;         // bytes of a record before its data
inline constexpr u32 kCommitSize = 32;       // bytes of a commit block
inline constexpr u64 kFirstItem = 1056;      // offset in the file behind the first commit block
inline constexpr u32 kBlockSize = 1048672;   // the default block_size
inline constexpr u32 kPieceSize = 2u << 20;  // bytes of one long read
inline constexpr const char* kAppendSettings =
    "flush_mode=PerTrans;flush_trans_num=10;flush_timeout=600000;";
// Storages whose records are read from memory, and all but the last of them from the file.
inline constexpr const char* kInMemory = "cache_type=AllInMem;flush_mode=NoFlush;file=:memory:";
inline constexpr const char* kInFile = "flush_mode=PerTrans;flush_trans_num=10;cache_type=Last1";

// The records that a block of the default size holds.
constexpr i64 RecordsInBlock(u32 dataSize) {
    return kBlockSize / (dataSize + kHeadSize);
}

class Stopwatch {
  public:
    double Nanoseconds() const {
        return std::chrono::duration<double, std::nano>(Clock::now() - m_began).count();
    }
    double Microseconds() const { return Nanoseconds() / 1e3; }

  private:
    using Clock = std::chrono::steady_clock;
    const Clock::time_point m_began = Clock::now();
};

// The value below which `share` of the values lie; 0 of none.
double Percentile(std::vector<double> values, double share);

// A storage in a new file in a folder of its own, loaded.
class OurStorage {
  public:
    OurStorage(const std::string& parent, const std::string& settings);

    void* Handle() const { return m_handle->Get(); }
    const BenchFile& File() const { return m_file; }
    // Closes the storage, which flushes it, and leaves the file.
    void Close() { m_handle.reset(); }
    // Opens the file again and loads it.
    void Open(const std::string& settings);

  private:
    BenchFile m_file;
    std::optional<BenchHandle> m_handle;
};

// Receives records; adds to the sum at `context` (i64) so that the compiler cannot leave them out.
u32 K9EREPL_CALL AddUp(const K9eReplRec* rec, void* context);

// Returns AddUp so that the compiler does not know which function it is, as in the library.
K9eReplEnumCb Receiver();

// Hands every record that lies completely in the `size` bytes to `receive`, passing over commit
// blocks. Returns the bytes that these items take.
inline std::size_t Walk(const u8* bytes, std::size_t size, K9eReplEnumCb receive, void* context) {
    constexpr u32 kRecordSignature = 0x7B3A2D2A;
    std::size_t offset = 0;
    while (size - offset >= kHeadSize) {
        u32 head[2];
        std::memcpy(head, bytes + offset, sizeof(head));
        const bool isRecord = head[0] == kRecordSignature;
        const u32 itemSize = isRecord ? head[1] : kCommitSize;
        if (itemSize > size - offset) {
            break;
        }
        if (isRecord) {
            receive(reinterpret_cast<const K9eReplRec*>(bytes + offset + 8), context);
        }
        offset += itemSize;
    }
    return offset;
}

// `count` records of kDataSize bytes with revisions from 1 on, as they lie in a block.
std::vector<u8> PackedRecords(i64 count);

// The offset of each record of the storage file and, at the end, that of the end of the last one.
std::vector<u64> OffsetsOfRecords(const std::string& path);

// The median of what several calls of `pass` return.
double MedianOf(int passes, const std::function<double()>& pass);

// Enumerates and requires that the records are there.
void Enumerate(void* handle, i64 fromRev, i64 count);

}  // namespace k9erepl::bench

#endif  // K9EREPL_BENCH_COMPARE_WORK_H
