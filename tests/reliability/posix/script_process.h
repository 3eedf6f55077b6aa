// A script of operations on one storage, as a function of its seed alone, run on the library with a
// model beside it; and a process that runs it on real files, in a folder of its own, while its
// calls on files are struck. The families of processes judge what it left by running the script,
// too.
#ifndef K9EREPL_TESTS_RELIABILITY_POSIX_SCRIPT_PROCESS_H
#define K9EREPL_TESTS_RELIABILITY_POSIX_SCRIPT_PROCESS_H

#include <functional>
#include <optional>
#include <string>

#include "reliability/memory_disk.h"
#include "reliability/oracle.h"

namespace k9erepl::reliability {

struct ScriptPlan {
    bool async = false;
    bool forceFlush = false;
    bool startsOver = true;  // truncations and clears of everything, too
};

// Operation 0 creates the storage, 1 opens it, the last one closes it.
struct ScriptHooks {
    std::function<void(u32 operation)> begins;
    // What operations led to, up to this one, survives the process from now on. Of the asynchronous
    // writer this comes in its thread.
    std::function<void(u32 operation)> acknowledges;
};

struct ScriptResult {
    History history;  // settings, and the states of the file after each operation
    u32 failed = 0;   // the operation that was answered unexpectedly, and ended the script
    u32 code = 0;     // and its answer
};

ScriptResult RunScript(const std::string& path, const ScriptPlan& plan, u64 seed,
                       const ScriptHooks& hooks);

// Told the number of each call of the process, from 1 on: how it ends, if in another way than it
// should. May end the process.
using Strike = std::function<std::optional<Permit>(u64 number, const Attempt& attempt)>;

struct ProcessEnd {
    int answer = 0;  // 0; the negative number of the signal that ended it
    u64 calls = 0;
    u64 struck = 0;
    std::size_t begun = 0;
    std::size_t acknowledged = 0;
    u32 failed = 0;
    u32 code = 0;
    DiskImage left;  // what the folder holds, as the folder of a MemoryDisk
};

// `killAfter`: the process is killed from outside as soon as it has made this many calls; 0: not.
ProcessEnd RunProcess(const ScriptPlan& plan, u64 seed, const Strike& strike, u64 killAfter = 0);

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_POSIX_SCRIPT_PROCESS_H
