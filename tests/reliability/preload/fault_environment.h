// How a driver tells libk9erepl_fault.so what to do, by environment variables, and how the library
// tells how far it came. The library counts each call on a file or name below a folder, and lets
// one of them, or all from it on, end in another way.
//
//     K9EREPL_FAULT_FOLDER   the folder; unset: nothing is counted
//     K9EREPL_FAULT_SHARED   a file of sizeof(FaultShared) bytes, mapped: it outlives the process
//     K9EREPL_FAULT_CALL     only calls of this name, such as "write"; unset: all
//     K9EREPL_FAULT_SKIP     a text: files and names that contain it are left alone; unset: none
//     K9EREPL_FAULT_AT       the number of the call, from 1 on; unset or 0: none
//     K9EREPL_FAULT_ACTION   "kill-before", "kill-inside" (half of a transfer is done),
//                            "kill-after", "short" (half of a transfer), or an errno, as "28"
//     K9EREPL_FAULT_STICKY   set: every later call, too
#ifndef K9EREPL_TESTS_RELIABILITY_PRELOAD_FAULT_ENVIRONMENT_H
#define K9EREPL_TESTS_RELIABILITY_PRELOAD_FAULT_ENVIRONMENT_H

#include <atomic>
#include <cstdint>

namespace k9erepl::reliability {

struct FaultShared {
    std::atomic<std::uint64_t> calls;   // counted so far, the present one included
    std::atomic<std::uint64_t> struck;  // of these, that ended otherwise
    // For the program that runs under it, which tells what it does.
    std::atomic<std::uint64_t> begun;         // operations
    std::atomic<std::uint64_t> acknowledged;  // operations that survive the process
    std::atomic<std::uint64_t> failed;        // the operation that answered a failure; 0: none
    std::atomic<std::uint64_t> code;          // its answer
    std::atomic<std::uint64_t> ended;         // nothing comes any more
};

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_PRELOAD_FAULT_ENVIRONMENT_H
