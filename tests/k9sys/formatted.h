// K9SysSNPrintf as the tests of the formatter call it.
#ifndef K9EREPL_TESTS_K9SYS_FORMATTED_H
#define K9EREPL_TESTS_K9SYS_FORMATTED_H

#include <gtest/gtest.h>
#include <k9sys/k9sys.h>

#include <cstring>
#include <string>

namespace k9erepl::test {

// The text that `format` makes of `args`, which must have the types that the directives take.
template <typename... Args>
std::string Formatted(const char* format, Args... args) {
    char buffer[4096];
    const std::uint32_t length = K9SysSNPrintf(buffer, sizeof buffer, format, args...);
    EXPECT_EQ(length, std::strlen(buffer)) << "for " << format;
    return buffer;
}

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_K9SYS_FORMATTED_H
