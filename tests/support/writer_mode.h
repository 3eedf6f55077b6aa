// Which writer the tests of this run give their storages. A test program is run twice: as it is,
// and with K9EREPL_TEST_ASYNC in the environment, when its fixtures add "async_mode=yes;" to the
// connection strings of storages that they open. Used by the fixtures, and by tests that hold for
// one of the writers only.
#ifndef K9EREPL_TESTS_SUPPORT_WRITER_MODE_H
#define K9EREPL_TESTS_SUPPORT_WRITER_MODE_H

#include <gtest/gtest.h>

#include <cstdlib>

namespace k9erepl::test {

inline bool RunsAsynchronously() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody changes the environment
    static const bool async = std::getenv("K9EREPL_TEST_ASYNC") != nullptr;
    return async;
}

// What a fixture puts into a connection string. Settings of the test's own, which come before it,
// win.
inline const char* WriterSetting() {
    return RunsAsynchronously() ? "async_mode=yes;" : "";
}

}  // namespace k9erepl::test

// Ends a test, or the set-up of its fixture, whose subject is the synchronous writer.
#define SKIP_WHEN_ASYNC(reason)                          \
    do {                                                 \
        if (::k9erepl::test::RunsAsynchronously()) {     \
            GTEST_SKIP() << "synchronous only: " reason; \
        }                                                \
    } while (false)

#endif  // K9EREPL_TESTS_SUPPORT_WRITER_MODE_H
