// How a wait learns of an interrupt: a descriptor that becomes readable, and stays so, with the
// first caught signal. For the input's poll alone.
#ifndef K9EREPL_K9REPL_POSIX_INTERRUPT_DESCRIPTOR_H
#define K9EREPL_K9REPL_POSIX_INTERRUPT_DESCRIPTOR_H

namespace k9repl {

// REQUIRES: CatchInterrupts was called.
int InterruptDescriptor();

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_POSIX_INTERRUPT_DESCRIPTOR_H
