// How a write to a pipe whose reader does not read is ended by a signal; interrupts.cpp has the
// function, streams.cpp writes through it.
#ifndef K9EREPL_K9REPL_POSIX_INTERRUPTIBLE_OUTPUT_H
#define K9EREPL_K9REPL_POSIX_INTERRUPTIBLE_OUTPUT_H

namespace k9repl {

// A second descriptor of standard output. The first caught signal turns it into one that cannot be
// written: a write that waits then ends, and one that is about to begin fails. So a piece of any
// size can be written at once. A test before each write would not do: the signal may come between
// the test and the write.
// Holds where one thread takes the signals and writes, as in the commands that only read.
// REQUIRES: CatchInterrupts was called.
int InterruptibleOutput();

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_POSIX_INTERRUPTIBLE_OUTPUT_H
