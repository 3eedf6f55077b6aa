// Reads a storage file from its first byte to its last and judges it by the rules of its format
// (docs/storage-file.md). It does not use the library and opens the file for reading only. verify
// and stat use it, append and cat if the user steers the library's log, and clear before a squeeze.
#ifndef K9EREPL_K9REPL_STORAGE_CHECK_H
#define K9EREPL_K9REPL_STORAGE_CHECK_H

#include <cstdint>
#include <optional>
#include <string>

namespace k9repl {

enum class StorageState {
    kSound,    // only zeros follow the last commit block
    kTorn,     // bytes follow it that no load takes: from a write that was cut off or undone
    kDamaged,  // the same, and after these bytes the data goes on
};

struct StorageCheck {
    StorageState state = StorageState::kSound;
    std::uint64_t fileSize = 0;        // in bytes
    std::uint64_t commitBlocks = 0;    // those that a load takes, the file's first one included
    std::uint64_t records = 0;         // those that these blocks commit, cleared ones included
    std::int64_t lastRev = 0;          // the highest committed revision; 0 if there is none
    std::int64_t clearRev = 0;         // records below it are not served
    std::uint64_t dataEnd = 0;         // offset of the first byte after the last commit block
    std::uint64_t stopOffset = 0;      // offset of the first item that breaks a rule
    std::uint64_t abandonedBytes = 0;  // bytes from dataEnd to the last one that is not zero
    // With kDamaged, the lowest and the highest revision found after the damage, both inclusive,
    // within 10 MiB; otherwise not meaningful.
    std::int64_t beyondFrom = 0;
    std::int64_t beyondTo = 0;
};

// Damage in the middle of a storage file, in figures.
struct FileDamage {
    std::uint64_t offset = 0;  // of the first item that breaks a rule
    std::int64_t lastRev = 0;  // the last revision before the damage; 0 if there is none
    // The lowest and the highest revision found after the damage, both inclusive, within 10 MiB.
    std::int64_t beyondFrom = 0;
    std::int64_t beyondTo = 0;
};

// Looks for damage in the whole file, also in parts that an index lets a load pass over. Empty if
// there is none. Throws as CheckStorageFile.
std::optional<FileDamage> FindDamage(const std::string& path);

// "the storage file 'data.edb' is damaged in the middle, at offset 1114, ...", without a full stop.
std::string Describe(const FileDamage& damage, const std::string& path);

// The size in bytes that the file has after a squeeze that keeps the revisions from `keptFrom` on.
// Reads the heads of the whole file. 0 if there is nothing to squeeze out or if the file cannot be
// read.
std::uint64_t SqueezedSize(const std::string& path, std::int64_t keptFrom);

// Checks the file. Throws a ToolError if it cannot be read, or if the library could not open or
// load it as a storage.
StorageCheck CheckStorageFile(const std::string& path);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_STORAGE_CHECK_H
