// Counts the file descriptors of this process for solid_fixture.h.
#include <filesystem>
#include <iterator>

#include "solid/solid_fixture.h"

namespace k9erepl::test {

std::size_t OpenDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

}  // namespace k9erepl::test
