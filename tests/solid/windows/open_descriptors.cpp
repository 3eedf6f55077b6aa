// Counts the handles of files of this process for solid_fixture.h.
#include "solid/solid_fixture.h"

#include <cstdint>

#include "platform/windows/win32.h"

namespace k9erepl::test {

// The system tells no process which handles it has, and Wine not even how many. They are small
// multiples of 4.
std::size_t OpenDescriptors() {
    constexpr std::uintptr_t kLargest = 4 * 4096;
    std::size_t count = 0;
    for (std::uintptr_t value = 4; value <= kLargest; value += 4) {
        const auto handle = reinterpret_cast<HANDLE>(value);
        count += GetFileType(handle) == FILE_TYPE_DISK ? 1U : 0U;
    }
    return count;
}

}  // namespace k9erepl::test
