// SIGINT, SIGTERM and SIGHUP as a request to finish cleanly. A second signal of the same kind ends
// the process at once. On Windows Ctrl-C and Ctrl-Break are SIGINT, the end of the console window
// or of the session SIGHUP, and the machine's shutdown SIGTERM. Used by the
// streams, which wait, and by commands, which ask between two steps.
#ifndef K9EREPL_K9REPL_INTERRUPTS_H
#define K9EREPL_K9REPL_INTERRUPTS_H

#include <cstdint>

namespace k9repl {

// From here on the signals are caught, and writing into a closed pipe is an error like any other
// instead of a signal. Called once, before another thread runs.
void CatchInterrupts();

// The number of the signal that came last, 0 when none came.
int InterruptSignal();

// "SIGTERM"; "a signal" for one that is not caught.
const char* InterruptName(int signal);

// Tells a wait of posix/ or windows/ about an interrupt: a descriptor that becomes readable with
// the first caught signal, on Windows the handle of an event that is set then. It stays so.
// REQUIRES: CatchInterrupts was called.
std::intptr_t InterruptWaitObject();

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_INTERRUPTS_H
