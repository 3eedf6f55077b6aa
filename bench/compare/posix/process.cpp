// Child processes and their use of the machine; see the header.
#include "compare/posix/process.h"

#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <fstream>

#include "bench_storage.h"

namespace k9erepl::bench {

namespace {

[[noreturn]] void WorkAsChild(const std::function<double()>& work, int results) {
    int status = 1;
    try {
        const double result = work();
        status = ::write(results, &result, sizeof(result)) == sizeof(result) ? 0 : 1;
    } catch (const std::exception& failure) {
        (void)std::fprintf(stderr, "benchmark failed: %s\n", failure.what());
    }
    // The parent's objects, such as folders that it will remove, are not this process's to destroy.
    ::_exit(status);
}

double CpuSeconds(clockid_t clock) {
    timespec used{};
    Require(::clock_gettime(clock, &used) == 0, "reading a processor clock");
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

}  // namespace

std::optional<double> RunInChild(const std::function<double()>& work) {
    int ends[2];
    Require(::pipe(ends) == 0, "making a pipe");
    (void)std::fflush(nullptr);
    const pid_t child = ::fork();
    Require(child >= 0, "starting a process");
    if (child == 0) {
        ::close(ends[0]);
        WorkAsChild(work, ends[1]);
    }
    ::close(ends[1]);
    double result = 0;
    const bool complete = ::read(ends[0], &result, sizeof(result)) == sizeof(result);
    ::close(ends[0]);
    int status = 0;
    Require(::waitpid(child, &status, 0) == child, "waiting for a process");
    return complete && status == 0 ? std::optional<double>(result) : std::nullopt;
}

double ResidentMebibytes() {
    std::ifstream statm("/proc/self/statm");
    double pages = 0;
    double resident = 0;
    statm >> pages >> resident;
    Require(!statm.fail(), "reading the resident memory");
    return resident * static_cast<double>(::sysconf(_SC_PAGESIZE)) / (1024.0 * 1024.0);
}

double ProcessCpuSeconds() {
    return CpuSeconds(CLOCK_PROCESS_CPUTIME_ID);
}

double ThreadCpuSeconds() {
    return CpuSeconds(CLOCK_THREAD_CPUTIME_ID);
}

}  // namespace k9erepl::bench
