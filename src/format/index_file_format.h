// The index file's structures, byte for byte (docs/index-file.md draws them): one header and, right
// behind it, one entry for each block of the storage file. src/index reads and writes them; the
// command-line tool includes this header to check an index file by itself.
//
// All numbers are little-endian, nothing is padded, and nothing follows the last entry. The rules
// that make a file valid stand in docs/index-file.md, "Valid if and only if"; a file that breaks
// one is treated as if there were none.
#ifndef K9EREPL_FORMAT_INDEX_FILE_FORMAT_H
#define K9EREPL_FORMAT_INDEX_FILE_FORMAT_H

#include <cstddef>

#include "format/int_types.h"

namespace k9erepl {

// The file begins with these characters, without the terminating zero. The first eight are also the
// signature of a storage file; index_file.cpp tells the two apart.
inline constexpr char kIndexMagic[] = "K9_EREPL_IDX";
inline constexpr u32 kIndexMagicSize = 12;  // bytes
// The only version that we write and accept.
inline constexpr u32 kIndexVersion = 3;

#pragma pack(push, 1)

// Bytes 0 to 31 of the file.
struct TIndexHeader {
    char magic[kIndexMagicSize];
    u32 version;
    // How many entries follow. A reader must not trust it before it has compared it with the length
    // of the file: a crash may leave a header that does not belong to the entries.
    u32 count;
    // The setting block_size of the storage that wrote the file, in bytes. Nobody checks it on
    // reading: 0 is possible, and whoever divides by it must look first.
    u32 blockSize;
    // IndexEntryChecksum of all entries, combined by exclusive or; 0 when there is no entry.
    u32 checksum;
    u32 reserved;  // written as 0, not read
};

// One block of the storage file. Both fields rise strictly from each entry to the next.
struct TIndexEntry {
    // Revision of the block's first record, at least 1.
    i64 rev;
    // Where that record begins in the storage file, in bytes from the file's beginning.
    i64 offset;
};

#pragma pack(pop)

static_assert(sizeof(TIndexHeader) == 32);
static_assert(offsetof(TIndexHeader, count) == 16);
static_assert(offsetof(TIndexHeader, checksum) == 24);
static_assert(sizeof(TIndexEntry) == 16);

// What one entry adds to the checksum by exclusive or. Combining the same value once more takes the
// entry out again, so a save that adds entries never has to read the old ones. The difference wraps
// around in 64 bits.
inline u32 IndexEntryChecksum(i64 rev, i64 offset) {
    const u64 difference = static_cast<u64>(rev) - static_cast<u64>(offset);
    return static_cast<u32>(difference) ^ static_cast<u32>(difference >> 32);
}

}  // namespace k9erepl

#endif  // K9EREPL_FORMAT_INDEX_FILE_FORMAT_H
