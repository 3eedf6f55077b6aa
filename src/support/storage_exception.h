// The exception that constructors throw when they cannot do their work; whoever constructs turns
// it into its result code. It never leaves the library.
#ifndef K9EREPL_SUPPORT_STORAGE_EXCEPTION_H
#define K9EREPL_SUPPORT_STORAGE_EXCEPTION_H

#include <exception>

#include "platform/int_types.h"

namespace k9erepl {

class K9eStorageException : public std::exception {
  public:
    // `code` is RC_NO_MEMORY, RC_INVALID_ARG, RC_SYSTEM_ERROR or RC_BAD_SIZE.
    explicit K9eStorageException(u32 code) noexcept : m_code(code) {}
    u32 Code() const noexcept { return m_code; }
    const char* what() const noexcept override { return "K9eStorageException"; }

  private:
    u32 m_code;
};

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_STORAGE_EXCEPTION_H
