// How a wait learns of an interrupt: an event that is set, and stays so, with the first caught one.
// For waits on the standard streams alone.
#ifndef K9EREPL_K9REPL_WINDOWS_INTERRUPT_EVENT_H
#define K9EREPL_K9REPL_WINDOWS_INTERRUPT_EVENT_H

#include "windows/win32.h"

namespace k9repl {

// REQUIRES: CatchInterrupts was called.
HANDLE InterruptEvent();

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_WINDOWS_INTERRUPT_EVENT_H
