// The signal handlers, and the pipe through which they end a wait.
#include "interrupts.h"

#include <fcntl.h>
#include <signal.h>  // NOLINT(modernize-deprecated-headers): sigaction
#include <unistd.h>

#include <atomic>
#include <cassert>
#include <cerrno>

#include "posix/interruptible_output.h"
#include "system.h"
#include "tool_error.h"

namespace k9repl {

namespace {

std::atomic<int> g_signal{0};
int g_wakePipe[2] = {-1, -1};
int g_output = -1;  // see InterruptibleOutput; -1: standard output is closed
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler writes it");

extern "C" void OnSignal(int signal) {
    const int savedErrno = errno;
    g_signal.store(signal);
    // The write fails if the pipe is full, but a full pipe is readable, too.
    [[maybe_unused]] const ssize_t written = write(g_wakePipe[1], "", 1);
    if (g_output >= 0) {
        dup2(g_wakePipe[0], g_output);  // the end of a pipe that can only be read
    }
    errno = savedErrno;
}

void Handle(int signal, void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART | SA_RESETHAND;
    sigaction(signal, &action, nullptr);
}

}  // namespace

void CatchInterrupts() {
    if (pipe2(g_wakePipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        throw SystemError("make a pipe for signals", LastError());
    }
    g_output = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
    Handle(SIGINT, &OnSignal);
    Handle(SIGTERM, &OnSignal);
    Handle(SIGHUP, &OnSignal);
    struct sigaction ignored = {};
    ignored.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignored, nullptr);
}

int InterruptSignal() {
    return g_signal.load();
}

const char* InterruptName(int signal) {
    switch (signal) {
        case SIGINT:
            return "SIGINT";
        case SIGTERM:
            return "SIGTERM";
        case SIGHUP:
            return "SIGHUP";
        default:
            return "a signal";
    }
}

int InterruptibleOutput() {
    assert(g_wakePipe[0] >= 0);
    return g_output;
}

std::intptr_t InterruptWaitObject() {
    assert(g_wakePipe[0] >= 0);
    return g_wakePipe[0];
}

}  // namespace k9repl
