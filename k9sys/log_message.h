// What every log function does: find the flag, and when it is set format the message and print
// it. Used by the exported log functions alone.
#ifndef K9SYS_LOG_MESSAGE_H
#define K9SYS_LOG_MESSAGE_H

#include <k9sys/k9sys.h>

#include <cstdarg>

namespace k9sys {

// Returns the flag of `module` at `level`, never null. A null module counts as "", a null format
// as an empty message. Throws nothing; without memory a message over 1 KiB is cut.
K9LogFlag* Log(K9SysLogLevel level, uint32_t code, const char* module, const char* format,
               va_list args);

}  // namespace k9sys

#endif  // K9SYS_LOG_MESSAGE_H
