// Gives the console's events the names and numbers of the corresponding POSIX signals, so that
// messages and exit statuses are the same on every system.
#include "interrupts.h"

#include <atomic>
#include <cassert>

#include "platform/windows/win32.h"
#include "system.h"
#include "tool_error.h"

namespace k9repl {

namespace {

constexpr int kSigHup = 1;
constexpr int kSigInt = 2;
constexpr int kSigTerm = 15;

std::atomic<int> g_signal{0};
std::atomic<unsigned> g_caught{0};  // bit N is set once signal N was caught
HANDLE g_wake = nullptr;

int SignalOf(DWORD event) {
    switch (event) {
        case CTRL_C_EVENT:
        case CTRL_BREAK_EVENT:
            return kSigInt;
        case CTRL_SHUTDOWN_EVENT:
            return kSigTerm;
        default:
            return kSigHup;
    }
}

// The system calls this function on a thread of its own.
BOOL WINAPI OnConsoleEvent(DWORD event) {
    const int signal = SignalOf(event);
    const unsigned bit = 1U << signal;
    if ((g_caught.fetch_or(bit) & bit) != 0) {
        constexpr UINT kStatusControlCExit = 0xC000013A;
        TerminateProcess(GetCurrentProcess(), kStatusControlCExit);
    }
    g_signal.store(signal);
    SetEvent(g_wake);
    if (signal != kSigInt) {
        // For these events the system ends the process as soon as the handler returns. So wait:
        // the main thread has some seconds to finish, and this wait ends with the process.
        Sleep(INFINITE);
    }
    return TRUE;
}

}  // namespace

void CatchInterrupts() {
    constexpr BOOL kManualReset = TRUE;
    g_wake = CreateEventA(nullptr, kManualReset, FALSE, nullptr);
    // The parent process may have made its children ignore Ctrl-C. Here it must have an effect.
    if (g_wake == nullptr || SetConsoleCtrlHandler(nullptr, FALSE) == FALSE ||
        SetConsoleCtrlHandler(&OnConsoleEvent, TRUE) == FALSE) {
        throw SystemError("watch for Ctrl-C", LastError());
    }
}

int InterruptSignal() {
    return g_signal.load();
}

const char* InterruptName(int signal) {
    switch (signal) {
        case kSigInt:
            return "SIGINT";
        case kSigTerm:
            return "SIGTERM";
        case kSigHup:
            return "SIGHUP";
        default:
            return "a signal";
    }
}

std::intptr_t InterruptWaitObject() {
    assert(g_wake != nullptr);
    return reinterpret_cast<std::intptr_t>(g_wake);
}

}  // namespace k9repl
