// The type of every result that is one of the codes RC_... of <k9erepl/storage.h>. All modules from
// here up answer with it; platform and format, which know no codes, answer with bool.
#ifndef K9EREPL_SUPPORT_RESULT_H
#define K9EREPL_SUPPORT_RESULT_H

#include <k9erepl/storage.h>

#include "platform/int_types.h"

namespace k9erepl {

// RC_OK, or the reason of the failure. What a client's visitor answers passes through as one, too.
// The exported functions spell it std::uint32_t, as their contract does.
using ResultCode = u32;

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_RESULT_H
