// A storage with random content, one removal of some of it, and a transaction behind that, as a
// History that begins just before the removal. The family of removals crashes in it.
#ifndef K9EREPL_TESTS_RELIABILITY_REMOVAL_HISTORY_H
#define K9EREPL_TESTS_RELIABILITY_REMOVAL_HISTORY_H

#include <optional>
#include <string>

#include "reliability/history.h"
#include "reliability/memory_disk.h"
#include "reliability/oracle.h"

namespace k9erepl::reliability {

enum class RemovalKind : u8 {
    kClearLogically,
    kSqueeze,
    kSqueezeBackup,
    kClearAllLogically,
    kClearAllSqueeze,
    kClearAllBackup,
    kTruncate,
};
inline constexpr u32 kRemovalKinds = 7;

struct RemovalPlan {
    RemovalKind kind = RemovalKind::kSqueeze;
    bool async = false;
    bool forceFlush = false;
    bool hardLinks = true;  // false: the disk has none
};

struct RemovalHistory {
    History history;                  // its first state is what the storage held before the removal
    i64 clearRev = 0;                 // of a squeeze: the first that stays
    bool makesBackup = false;         // the removal leaves one
    std::optional<Seen> olderBackup;  // the content of one that was there before
};

inline std::string BackupPath() {
    return StoragePath() + ".backup";
}
inline std::string TemporaryPath() {
    return StoragePath() + ".temporary";
}

// REQUIRES: a SteadyCalls lives; nothing is open on `disk`, which is used and left closed, and
// without hard links if the plan says so.
RemovalHistory MakeRemoval(MemoryDisk& disk, const RemovalPlan& plan, u64 seed);

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_REMOVAL_HISTORY_H
