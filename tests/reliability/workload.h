// Runs random operations on a storage in a MemoryDisk and on a plain model of it, and tells what
// happened as a History: a mixture of all operations, or one removal in a storage of random
// content.
#ifndef K9EREPL_TESTS_RELIABILITY_WORKLOAD_H
#define K9EREPL_TESTS_RELIABILITY_WORKLOAD_H

#include <optional>
#include <string>

#include "reliability/family.h"
#include "reliability/memory_disk.h"
#include "reliability/oracle.h"

namespace k9erepl::reliability {

// Transactions of records of every size, rollbacks, clears in every mode, truncations, life
// numbers, reopenings.
struct WorkloadPlan {
    u32 operations = 60;  // about
    bool async = false;
    bool forceFlush = false;
    bool commitBarrier = false;
    bool writeThrough = false;
    u32 flushEvery = 0;        // transactions; 0: the seed says
    u32 blockSize = 0;         // 0: the seed says
    bool removes = true;       // clears and truncations, too
    std::string moreSettings;  // win; end with ';' unless empty
};

// REQUIRES: a SteadyCalls lives; nothing is open on `disk`, which is used and left closed.
History MakeHistory(MemoryDisk& disk, const WorkloadPlan& plan, u64 seed);

// The history of a group of short runs, half of them with the asynchronous writer, a fifth with
// forced flushes. Its own problem is the group's case 0. REQUIRES: as above.
History MakeHistory(MemoryDisk& disk, GroupRun& run);

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

// One removal, and a transaction behind it.
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

// REQUIRES: as above. Leaves the disk without hard links if the plan says so.
RemovalHistory MakeRemoval(MemoryDisk& disk, const RemovalPlan& plan, u64 seed);

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_WORKLOAD_H
