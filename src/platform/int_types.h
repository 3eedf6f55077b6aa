// The short names of the fixed-width integers, for platform and the modules above it. src/format
// defines them, because that is the lowest module and needs them itself; its header also says what
// the library uses each of them for.
#ifndef K9EREPL_PLATFORM_INT_TYPES_H
#define K9EREPL_PLATFORM_INT_TYPES_H

#include "format/int_types.h"

#endif  // K9EREPL_PLATFORM_INT_TYPES_H
