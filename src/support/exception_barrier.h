// Where exceptions end: around every call that a client makes and every callback that a thread of
// ours makes. Used by the exported functions, the storage's data-source side and the asynchronous
// writer.
#ifndef K9EREPL_SUPPORT_EXCEPTION_BARRIER_H
#define K9EREPL_SUPPORT_EXCEPTION_BARRIER_H

#include "platform/int_types.h"

namespace k9erepl {

// Logs an exception that ended `call`; `what` says which one.
using ExceptionLogger = void (*)(u32 code, const char* call, const char* what);
void LogException(u32 code, const char* call, const char* what);

// To be called in a catch-all handler. Logs the exception as the end of `call` and returns the code
// for it: RC_NO_MEMORY for std::bad_alloc, RC_SYSTEM_ERROR for any other. Throws on what ends the
// calling thread.
u32 EndException(const char* call, ExceptionLogger logger = &LogException);

// Returns what `work` returns, or the code of what it throws.
template <typename Work>
u32 WithoutExceptions(const char* call, Work work) {
    try {
        return work();
    } catch (...) {
        return EndException(call);
    }
}

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_EXCEPTION_BARRIER_H
