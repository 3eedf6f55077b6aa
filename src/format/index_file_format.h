// The index file's structures, byte for byte (docs/index-file.md draws them).
#ifndef K9EREPL_FORMAT_INDEX_FILE_FORMAT_H
#define K9EREPL_FORMAT_INDEX_FILE_FORMAT_H

#include <cstddef>

#include "format/int_types.h"

namespace k9erepl {

inline constexpr char kIndexMagic[] = "K9_EREPL_IDX";  // without its terminating zero
inline constexpr u32 kIndexMagicSize = 12;
inline constexpr u32 kIndexVersion = 3;

#pragma pack(push, 1)

struct TIndexHeader {
    char magic[kIndexMagicSize];
    u32 version;
    u32 count;      // entries
    u32 blockSize;  // block_size of the storage that wrote the file
    u32 checksum;   // over all entries
    u32 reserved;   // written as 0, not read
};

struct TIndexEntry {
    i64 rev;     // first revision of the block
    i64 offset;  // file offset of the block in the storage file
};

#pragma pack(pop)

static_assert(sizeof(TIndexHeader) == 32);
static_assert(offsetof(TIndexHeader, count) == 16);
static_assert(offsetof(TIndexHeader, checksum) == 24);
static_assert(sizeof(TIndexEntry) == 16);

// What an entry adds to the checksum, by exclusive or: the same value takes it out again.
inline u32 IndexEntryChecksum(i64 rev, i64 offset) {
    const u64 difference = static_cast<u64>(rev) - static_cast<u64>(offset);
    return static_cast<u32>(difference) ^ static_cast<u32>(difference >> 32);
}

}  // namespace k9erepl

#endif  // K9EREPL_FORMAT_INDEX_FILE_FORMAT_H
