// The result codes that the stand-in's own functions answer.
#ifndef K9SYS_RESULT_CODES_H
#define K9SYS_RESULT_CODES_H

#include <cstdint>

namespace k9sys {

inline constexpr std::uint32_t kOk = 0;
inline constexpr std::uint32_t kNoMemory = 1;
inline constexpr std::uint32_t kInvalidArgument = 2;

}  // namespace k9sys

#endif  // K9SYS_RESULT_CODES_H
