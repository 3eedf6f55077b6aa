// Copies what lies behind a damage in the middle of a storage file into a file beside it.
// DamagedTail calls it before a write makes those bytes zero.
#ifndef K9EREPL_SOLID_TAIL_COPY_H
#define K9EREPL_SOLID_TAIL_COPY_H

#include <string>

#include "platform/file.h"
#include "platform/int_types.h"
#include "support/result.h"

namespace k9erepl {

// At most so many different tails of one storage are kept.
inline constexpr u32 kDamagedTailsMost = 100;

// The name of the tail number `number`, from 0, of the storage file `path`: "<path>.damaged-tail",
// "<path>.damaged-tail.1", ...
std::string DamagedTailName(const std::string& path, u32 number);

// Copies the bytes of `source` from the file offset `from` to its end into a file with the first of
// these names that is free. The copy is whole and on the disk, or there is none. If a file of these
// names already has these bytes, nothing is done. `storagePath` is followed if it is a symbolic
// link. Moves the pointer of `source`.
// Errors, logged: RC_SYSTEM_ERROR, also when all names are taken; RC_SHORT_READ, RC_NO_MEMORY.
// May throw std::bad_alloc.
[[nodiscard]] ResultCode KeepDamagedTail(platform::File& source, const std::string& storagePath,
                                         i64 from);

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_TAIL_COPY_H
