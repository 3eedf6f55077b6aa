// Runs the script client in a process of its own, with the fault library in front, in a folder of
// its own. The families of killed processes and of failing calls use it.
#ifndef K9EREPL_TESTS_RELIABILITY_POSIX_SCRIPT_PROCESS_H
#define K9EREPL_TESTS_RELIABILITY_POSIX_SCRIPT_PROCESS_H

#include <string>

#include "platform/int_types.h"
#include "reliability/disk_image.h"
#include "reliability/script_run.h"
#include "support/temp_folder.h"

namespace k9erepl::reliability {

// What the fault library is told; see preload/fault_environment.h.
struct ProcessFault {
    u64 at = 0;
    std::string action;
    std::string call;
    std::string skip;
    // Instead: the process is killed from outside as soon as it has made this many calls.
    u64 killAfter = 0;
};

struct ProcessEnd {
    bool killed = false;
    int exitStatus = 0;
    u64 calls = 0;
    u64 struck = 0;
    std::size_t begun = 0;
    std::size_t acknowledged = 0;
    u32 failed = 0;
    u32 code = 0;
    DiskImage left;  // what the folder holds, as the folder of a MemoryDisk
};

ProcessEnd RunProcess(const ScriptPlan& plan, u64 seed, const ProcessFault& fault);

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_POSIX_SCRIPT_PROCESS_H
