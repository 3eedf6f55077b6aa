// Writing to standard output as the system does it. Used by the output alone.
#ifndef K9EREPL_K9REPL_OUTPUT_FILE_H
#define K9EREPL_K9REPL_OUTPUT_FILE_H

#include <string_view>
#include <system_error>

namespace k9repl {

enum class OnInterrupt {
    kStop,    // an interrupt ends the wait for a reader: errc::interrupted
    kFinish,  // everything is written all the same
};

// Writes all of `bytes`, or returns why not all were written; errc::broken_pipe when nobody reads
// them any more. SIGPIPE must be ignored.
std::error_code WriteToStandardOutput(std::string_view bytes, OnInterrupt onInterrupt);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_OUTPUT_FILE_H
