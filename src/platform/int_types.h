// The short names of the fixed-width integers, which src/format defines at the bottom of the order,
// for the modules above it.
#ifndef K9EREPL_PLATFORM_INT_TYPES_H
#define K9EREPL_PLATFORM_INT_TYPES_H

#include "format/int_types.h"

#endif  // K9EREPL_PLATFORM_INT_TYPES_H
