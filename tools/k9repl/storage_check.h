// Reads a storage file from its first byte to its last and judges it by the rules of its format
// (docs/storage-file.md), without the library: the file is opened for reading only. Used by verify
// and stat, and by clear before a squeeze.
#ifndef K9EREPL_K9REPL_STORAGE_CHECK_H
#define K9EREPL_K9REPL_STORAGE_CHECK_H

#include <cstdint>
#include <optional>
#include <string>

namespace k9repl {

enum class StorageState {
    kSound,    // nothing but zeros behind the last commit block
    kTorn,     // bytes behind it that no load takes: of a write that was cut off or undone
    kDamaged,  // the same, and behind them data that goes on
};

struct StorageCheck {
    StorageState state = StorageState::kSound;
    std::uint64_t fileSize = 0;        // in bytes
    std::uint64_t commitBlocks = 0;    // that a load takes, the file's first one included
    std::uint64_t records = 0;         // that these commit, cleared ones included
    std::int64_t lastRev = 0;          // the highest committed revision
    std::int64_t clearRev = 0;         // records below it are not served
    std::uint64_t dataEnd = 0;         // offset behind the last of the commit blocks
    std::uint64_t stopOffset = 0;      // of the first item that breaks a rule
    std::uint64_t abandonedBytes = 0;  // from dataEnd to the last byte that is not zero
    // kDamaged: of the revisions found beyond, within 10 MiB.
    std::int64_t beyondFrom = 0;
    std::int64_t beyondTo = 0;
};

// Damage in the middle of a storage file, in figures.
struct FileDamage {
    std::uint64_t offset = 0;  // of the first item that breaks a rule
    std::int64_t lastRev = 0;  // of the last good commit block
    // Of the revisions found beyond, within 10 MiB.
    std::int64_t beyondFrom = 0;
    std::int64_t beyondTo = 0;
};

// What the whole file shows, parts that an index passes over included. Throws as CheckStorageFile.
std::optional<FileDamage> FindDamage(const std::string& path);

// "the storage file 'data.edb' is damaged in the middle, at offset 1114, ..."; without a full stop.
std::string Describe(const FileDamage& damage, const std::string& path);

// The size in bytes that a squeeze leaves of the file when `keptFrom` is the first revision that is
// kept: reads the heads of the whole file. 0 where there is nothing to squeeze out, or where the
// file cannot be read.
std::uint64_t SqueezedSize(const std::string& path, std::int64_t keptFrom);

// Throws a ToolError where the file cannot be read or could not be opened or loaded as a storage.
StorageCheck CheckStorageFile(const std::string& path);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_STORAGE_CHECK_H
