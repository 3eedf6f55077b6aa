// Bounded formatting with the directives of the system library. Used by K9SysSNPrintf and by
// every log call. The directives and their arguments are listed in k9sys.h and host-services.md.
#ifndef K9SYS_FORMATTER_H
#define K9SYS_FORMATTER_H

#include <cstdarg>

#include "text_output.h"

namespace k9sys {

// Puts the formatted text behind what `out` holds. A directive that is not known is put as it
// stands and takes no argument. Needs no memory beyond the stack; does not depend on the locale.
// `args` is used up, as by vprintf.
void FormatText(TextOutput& out, const char* format, va_list args);

}  // namespace k9sys

#endif  // K9SYS_FORMATTER_H
