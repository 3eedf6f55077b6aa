// A program that a test runs, feeds, interrupts, kills and waits for. Used by every test that needs
// a process of its own: those of the tool, the crash tests, those of what a process decides once.
#ifndef K9EREPL_TESTS_SUPPORT_CHILD_PROCESS_H
#define K9EREPL_TESTS_SUPPORT_CHILD_PROCESS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/int_types.h"

namespace k9erepl::test {

struct ChildOptions {
    std::vector<std::string> arguments;         // the program's path first
    std::vector<std::string> environment = {};  // NAME=VALUE changes the test's own, NAME removes
    std::string inputPath = {};                 // empty: a pipe that Write feeds
    std::string outputPath = {};                // empty: a pipe that Read reads
    std::string errorPath = {};                 // empty: the test's own standard error
    bool interruptible = false;                 // Interrupt may be called
    u64 fileSizeMax = 0;            // bytes a file of the child may have; 0 is no limit; POSIX only
    bool obeysPermissions = false;  // those of files bind it though it is root; POSIX only
};

inline constexpr int kKillSignal = 9;

// How a child ended: by itself with `exitStatus`, or by `signal`, the other one being 0. Kill ends
// it by kKillSignal. On Windows any other signal is the number of the exception that ended it.
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

    // As Ctrl-C does it on a terminal, Ctrl-Break on a console. REQUIRES: interruptible.
    void Interrupt();
    void Kill();
    void Signal(int signal);  // POSIX only: defined nowhere else

    // Waits for the end; once.
    ChildEnd Wait();

  private:
    std::intptr_t m_process = -1;  // the system's number or handle, as these two
    std::intptr_t m_input = -1;
    std::intptr_t m_output = -1;
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_SUPPORT_CHILD_PROCESS_H
