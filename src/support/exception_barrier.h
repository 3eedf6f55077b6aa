// Where exceptions end: around every call that a client makes, and around every callback that a
// thread of ours makes. Used by the exported functions, by the storage where a host or the index
// thread calls it as a data source, and by the asynchronous writer. docs/architecture.md, "How
// errors travel", says what exceptions are for.
#ifndef K9EREPL_SUPPORT_EXCEPTION_BARRIER_H
#define K9EREPL_SUPPORT_EXCEPTION_BARRIER_H

#include "platform/int_types.h"
#include "support/result.h"

namespace k9erepl {

// Logs that an exception ended `call`, the name of a function. `code` is the result code that the
// caller answers, `what` the exception's own text.
using ExceptionLogger = void (*)(u32 code, const char* call, const char* what);
// The usual logger: one error under the storage's module.
void LogException(u32 code, const char* call, const char* what);

// To be called in a catch-all handler. Logs the exception as the end of `call` and returns the code
// for it: RC_NO_MEMORY for std::bad_alloc, RC_SYSTEM_ERROR for any other. An exception that ends
// the calling thread is thrown again, without a message.
[[nodiscard]] ResultCode EndException(const char* call, ExceptionLogger logger = &LogException);

// Returns what `work` returns, or the code of the exception that it throws (see EndException).
template <typename Work>
[[nodiscard]] ResultCode WithoutExceptions(const char* call, Work work) {
    try {
        return work();
    } catch (...) {
        return EndException(call);
    }
}

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_EXCEPTION_BARRIER_H
