// Runs random operations on a storage in a MemoryDisk and on a plain model of it, and tells what
// happened as a History: transactions of records of every size, rollbacks, clears in every mode,
// truncations, life numbers, reopenings.
#ifndef K9EREPL_TESTS_RELIABILITY_WORKLOAD_H
#define K9EREPL_TESTS_RELIABILITY_WORKLOAD_H

#include <string>

#include "reliability/family.h"
#include "reliability/history.h"
#include "reliability/memory_disk.h"

namespace k9erepl::reliability {

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

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_WORKLOAD_H
