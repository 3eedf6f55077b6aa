// A file through plain system calls: the physical limits in bench/compare read and write with it,
// with nothing between them and the system. A call that fails ends the program.
#ifndef K9EREPL_BENCH_COMPARE_POSIX_RAW_FILE_H
#define K9EREPL_BENCH_COMPARE_POSIX_RAW_FILE_H

#include <cstddef>
#include <string>

#include "platform/int_types.h"

namespace k9erepl::bench {

class RawFile {
  public:
    enum class Mode { kRead, kCreate };

    RawFile(const std::string& path, Mode mode);
    ~RawFile();
    RawFile(const RawFile&) = delete;
    RawFile& operator=(const RawFile&) = delete;

    void Write(const void* bytes, std::size_t size);
    // Returns the bytes that were read, fewer than `size` only at the end of the file.
    std::size_t Read(void* bytes, std::size_t size);
    void ReadAt(void* bytes, std::size_t size, u64 offset);
    void SeekTo(u64 offset);
    // Lengthens the file with zeros.
    void GrowTo(u64 size);
    void SyncData();

  private:
    int m_descriptor = -1;
};

}  // namespace k9erepl::bench

#endif  // K9EREPL_BENCH_COMPARE_POSIX_RAW_FILE_H
