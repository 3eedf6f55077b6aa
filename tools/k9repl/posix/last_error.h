// The error of the last system call, as a code that knows its text. Used by the files of this
// folder alone.
#ifndef K9EREPL_K9REPL_POSIX_LAST_ERROR_H
#define K9EREPL_K9REPL_POSIX_LAST_ERROR_H

#include <cerrno>
#include <system_error>

namespace k9repl {

inline std::error_code LastError() {
    return {errno, std::generic_category()};
}

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_POSIX_LAST_ERROR_H
