// Takes SIGINT, SIGTERM and SIGHUP as a request to finish cleanly. A second signal of the same kind
// ends the process at once. On Windows, Ctrl-C and Ctrl-Break count as SIGINT, closing the console
// window or logging off as SIGHUP, and shutting the machine down as SIGTERM. The streams use this
// in their waits, and the commands ask between two steps.
#ifndef K9EREPL_K9REPL_INTERRUPTS_H
#define K9EREPL_K9REPL_INTERRUPTS_H

#include <cstdint>

namespace k9repl {

// Starts to catch the signals. From then on, writing to a closed pipe is an ordinary error and not
// a signal. Call it once, before another thread runs. Throws ToolError.
void CatchInterrupts();

// The number of the last signal that was caught; 0 if there was none.
int InterruptSignal();

// The name of a signal, such as "SIGTERM"; "a signal" for one that we do not catch.
const char* InterruptName(int signal);

// What a wait in posix/ or windows/ watches to notice an interrupt: a descriptor that becomes
// readable with the first caught signal, on Windows the handle of an event that is set then. It
// stays readable, or set.
// REQUIRES: CatchInterrupts was called.
std::intptr_t InterruptWaitObject();

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_INTERRUPTS_H
