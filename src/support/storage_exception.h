// The exception that constructors throw when they cannot do their work. Whoever constructs catches
// it and answers its result code. It never leaves the library. Everything else that can fail
// returns a code: docs/architecture.md, "How errors travel".
#ifndef K9EREPL_SUPPORT_STORAGE_EXCEPTION_H
#define K9EREPL_SUPPORT_STORAGE_EXCEPTION_H

#include <exception>

#include "platform/int_types.h"
#include "support/result.h"

namespace k9erepl {

// The failure was logged where it was thrown, unless the code says it all: the thrower of
// RC_NO_MEMORY or RC_INVALID_ARG may leave the message to its caller.
class K9eStorageException : public std::exception {
  public:
    // `code` is RC_NO_MEMORY, RC_INVALID_ARG, RC_SYSTEM_ERROR or RC_BAD_SIZE.
    explicit K9eStorageException(u32 code) noexcept : m_code(code) {}
    // The result code for whoever asked for the object.
    [[nodiscard]] ResultCode Code() const noexcept { return m_code; }
    // The same text for every code: the catcher answers Code() and needs no text.
    const char* what() const noexcept override { return "K9eStorageException"; }

  private:
    u32 m_code;  // never RC_OK
};

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_STORAGE_EXCEPTION_H
