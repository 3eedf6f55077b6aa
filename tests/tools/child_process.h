// A program that a test runs, feeds, signals and waits for. Used by the tests of the tool and by
// the crash tests. POSIX only, as those tests are.
#ifndef K9EREPL_TESTS_TOOLS_CHILD_PROCESS_H
#define K9EREPL_TESTS_TOOLS_CHILD_PROCESS_H

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "platform/int_types.h"

namespace k9erepl::test {

struct ChildOptions {
    std::vector<std::string> arguments;  // the program's path first
    std::string inputPath = {};          // empty: a pipe that Write feeds
    std::string outputPath = {};         // empty: a pipe that Read reads
    std::string errorPath = {};          // empty: the test's own standard error
    u64 fileSizeMax = 0;                 // bytes a file of the child may have; 0 is no limit
    bool obeysPermissions = false;       // those of files bind it though it is root
};

// How a child ended: by itself with `exitStatus`, or by `signal`, the other one being 0.
struct ChildEnd {
    int exitStatus = 0;
    int signal = 0;
    bool operator==(const ChildEnd&) const = default;
};

// For one thread. Throws std::system_error when the system refuses.
class ChildProcess {
  public:
    explicit ChildProcess(const ChildOptions& options);
    // Kills and reaps a child that was not waited for.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Writes all of `bytes` to the child's standard input.
    void Write(std::string_view bytes);
    void CloseInput();

    // Reads up to `size` bytes of the child's standard output, waiting up to `timeoutMs` (-1: for
    // ever). 0 when nothing came in time or the child closed it.
    std::size_t Read(void* buffer, std::size_t size, int timeoutMs);
    void CloseOutput();

    void Signal(int signal);
    // Waits for the end; once.
    ChildEnd Wait();

  private:
    pid_t m_process = -1;
    int m_input = -1;
    int m_output = -1;
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_TOOLS_CHILD_PROCESS_H
