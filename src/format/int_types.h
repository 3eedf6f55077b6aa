// The fixed-width integers under their short names. Nearly every file includes them.
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
