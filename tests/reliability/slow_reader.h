// A second reader of storage and index files, written from docs/storage-file.md and
// docs/index-file.md alone: rule by rule, byte by byte, without any cleverness. Families compare
// what the library makes of damaged files with what this reader makes of them.
#ifndef K9EREPL_TESTS_RELIABILITY_SLOW_READER_H
#define K9EREPL_TESTS_RELIABILITY_SLOW_READER_H

#include <cstddef>
#include <string>
#include <vector>

#include "model/content.h"
#include "platform/int_types.h"

namespace k9erepl::reliability {

inline constexpr std::size_t kHeaderSize = 1024;
inline constexpr std::size_t kCommitSize = 32;
inline constexpr std::size_t kHeadSize = 24;

// The little-endian number of `size` bytes at `at`; 8 bytes are a two's complement number.
// REQUIRES: they lie in `bytes`.
i64 NumberAt(const std::string& bytes, std::size_t at, std::size_t size);
void SetNumberAt(std::string& bytes, std::size_t at, std::size_t size, i64 number);

enum class ItemKind : u8 { kCommit, kRecord };

struct SlowItem {
    ItemKind kind = ItemKind::kRecord;
    std::size_t at = 0;
    std::size_t size = 0;
    i64 rev = 0;  // of a record; the commitRev of a commit block
};

struct SlowScan {
    std::string refusal;  // why the file cannot be loaded; empty: it can
    std::string stop;     // why the walk ended
    std::size_t stopAt = 0;
    std::vector<SlowItem> items;  // accepted, those behind the last commit block included
    std::size_t validItems = 0;   // up to the last commit block
    std::size_t validEnd = 0;     // the byte behind it
    i64 clearRev = 0;             // what the last commit block says
    i64 commitRev = 0;
    i64 nextRev = 0;  // the one that the storage assigns next
    u32 sequence = 0;
    u32 lifenum = 0;
    i64 mark = 0;

    bool IsRefused() const { return !refusal.empty(); }
};

enum class SlowLoad : u8 { kForWriting, kIntoMemory /* flush_mode=NoFlush */ };

// `start` as an index file gives it; 0: the whole file.
SlowScan ScanSlowly(const std::string& bytes, std::size_t start = 0,
                    SlowLoad load = SlowLoad::kForWriting);

// The records that a storage serves which was loaded so.
model::Records ServedRecords(const std::string& bytes, const SlowScan& scan);

model::Record RecordAt(const std::string& bytes, const SlowItem& item);

// Items from `start` on that are sound by themselves, whatever their revisions: what the reader of
// enumerations may deliver of a part of the file that no load has checked.
std::vector<SlowItem> WalkLoosely(const std::string& bytes, std::size_t start);

struct SlowIndexEntry {
    i64 rev = 0;
    i64 offset = 0;

    bool operator==(const SlowIndexEntry&) const = default;
};

struct SlowIndex {
    std::string refusal;
    std::vector<SlowIndexEntry> entries;
    u32 blockSize = 0;
};

SlowIndex ReadIndexSlowly(const std::string& bytes);
// A whole index file of these entries.
std::string IndexBytes(const std::vector<SlowIndexEntry>& entries, u32 blockSize);
// Writes the checksum that fits the entries which the file's length has room for.
void MendChecksum(std::string& bytes);

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_SLOW_READER_H
