// What the tests of truncate share: a small storage and what is told of its truncation.
#ifndef K9EREPL_TESTS_TOOLS_TRUNCATE_FIXTURE_H
#define K9EREPL_TESTS_TOOLS_TRUNCATE_FIXTURE_H

#include <string>
#include <vector>

#include "tools/tool_fixture.h"

namespace k9erepl::test {

class ToolTruncateTest : public ToolTest {
  protected:
    void Fill() {
        ASSERT_EQ(Append("r1\nr2\nr3\nr4\nr5\n").exitStatus, 0);
        m_before = ReadBytes(StorageFile());
    }

    void ExpectNothingChanged() {
        EXPECT_EQ(ReadBytes(StorageFile()), m_before);
        EXPECT_EQ(Cat(), "r1\nr2\nr3\nr4\nr5\n");
    }

    std::vector<u8> m_before;
};

inline constexpr const char* kTruncateReport =
    "truncated            everything is thrown away\n"
    "oldest revision      1 -> none\n"
    "next revision        6 -> 1\n"
    "storage file size    1218 -> 1218\n"
    "backup file          none\n";

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_TOOLS_TRUNCATE_FIXTURE_H
