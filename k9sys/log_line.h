// The line of one message in the log file:
//
//   2026-11-21 13:42:07.123 error k9eRepl-storage: Failed to begin trans;state 3 (code 27)
//
// Local time with milliseconds, level, module, message; the code, written as by "%R", only when the
// message carries one. Used by the log output alone.
#ifndef K9SYS_LOG_LINE_H
#define K9SYS_LOG_LINE_H

#include <cstdio>

#include "log_output.h"

namespace k9sys {

// Writes the line with one call of the C library. Control characters in the message become '?',
// so that a message is always one line. A line that cannot be written is lost.
void WriteLine(std::FILE* file, const LogMessage& message);

}  // namespace k9sys

#endif  // K9SYS_LOG_LINE_H
