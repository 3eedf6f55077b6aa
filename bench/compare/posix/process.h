// Processes for bench/compare: each measurement has one of its own, so that no memory, thread or
// cache is left over from the one before it. Also what a process has used of memory and processor.
#ifndef K9EREPL_BENCH_COMPARE_POSIX_PROCESS_H
#define K9EREPL_BENCH_COMPARE_POSIX_PROCESS_H

#include <functional>
#include <optional>

namespace k9erepl::bench {

// Runs `work` in a child process and returns its result; nothing if the child failed, which then
// has said why on standard error.
std::optional<double> RunInChild(const std::function<double()>& work);

double ResidentMebibytes();  // of this process, now

// Seconds of processor time, in user space and in the kernel.
double ProcessCpuSeconds();
double ThreadCpuSeconds();  // of the calling thread

}  // namespace k9erepl::bench

#endif  // K9EREPL_BENCH_COMPARE_POSIX_PROCESS_H
