// A read or a write that may block for ever, made on another thread so that an interrupt ends the
// or a deadline ends the wait for it. Used by the input and the output.
#ifndef K9EREPL_K9REPL_WINDOWS_BLOCKING_CALL_H
#define K9EREPL_K9REPL_WINDOWS_BLOCKING_CALL_H

#include <cstddef>
#include <memory>
#include <vector>

#include "windows/win32.h"

namespace k9repl {

struct Transfer {
    HANDLE stream = nullptr;
    std::vector<char> bytes;
    std::size_t count = 0;  // bytes that were transferred
    DWORD error = NO_ERROR;
};

// Reads once, up to bytes.size() bytes. At the end of the stream count and error are 0.
void ReadOnce(Transfer& transfer);

// Writes all of `bytes`, unless there is an error.
void WriteAll(Transfer& transfer);

enum class CallEnd { kDone, kInterrupted, kTimedOut };

// Starts `call` on `transfer`, which belongs to it until AwaitCall has returned kDone, if need be
// until the process ends. One call at a time, for one thread.
void StartCall(void (*call)(Transfer&), const std::shared_ptr<Transfer>& transfer);

// Waits for the end of the call that was started, `milliseconds` at the longest (INFINITE: for
// ever). An interrupt comes first. Unless it returns kDone the call may still run.
CallEnd AwaitCall(DWORD milliseconds);

// Whether a read from `stream` does not wait: it is a file on a disk, or a pipe that holds bytes.
bool ReadsAtOnce(HANDLE stream);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_WINDOWS_BLOCKING_CALL_H
