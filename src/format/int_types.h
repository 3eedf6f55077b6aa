// The fixed-width integers under their short names. Nearly every file includes them; the modules
// above src/format do so through platform/int_types.h.
//
// The library uses them in one way throughout: a revision and a file offset are i64, because 0 and
// -1 stand for "none" there; a size in memory or of one read or write is u32; a result code is u32;
// raw bytes are u8. Callers of std functions convert to std::size_t themselves.
#ifndef K9EREPL_FORMAT_INT_TYPES_H
#define K9EREPL_FORMAT_INT_TYPES_H

#include <cstdint>

namespace k9erepl {

using u8 = std::uint8_t;
using u16 = std::uint16_t;
using u32 = std::uint32_t;
using u64 = std::uint64_t;
using i32 = std::int32_t;
using i64 = std::int64_t;

}  // namespace k9erepl

#endif  // K9EREPL_FORMAT_INT_TYPES_H
