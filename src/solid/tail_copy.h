// Copying what lies behind a damage in the middle of a storage file into a file beside it. The
// damaged tail calls it before a write makes those bytes zero.
#ifndef K9EREPL_SOLID_TAIL_COPY_H
#define K9EREPL_SOLID_TAIL_COPY_H

#include <string>

#include "platform/file.h"
#include "platform/int_types.h"

namespace k9erepl {

// So many different tails are kept of one storage.
inline constexpr u32 kDamagedTailsMost = 100;

// The name of the `number`-th tail of the storage file `path`, from 0: "<path>.damaged-tail",
// "<path>.damaged-tail.1", ...
std::string DamagedTailName(const std::string& path, u32 number);

// Copies the bytes of `source` from `from` to its end into a file of the first of these names that
// is free, whole and on the disk or not at all; where one of them has these bytes already, nothing
// is done. `storagePath` is followed if it is a symbolic link. Moves the pointer of `source`.
// Errors, logged: RC_SYSTEM_ERROR, RC_SHORT_READ, RC_NO_MEMORY. May throw std::bad_alloc.
[[nodiscard]] u32 KeepDamagedTail(platform::File& source, const std::string& storagePath, i64 from);

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_TAIL_COPY_H
