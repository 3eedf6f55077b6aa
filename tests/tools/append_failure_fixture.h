// What the tests of append's failures share: how a failure is told.
#ifndef K9EREPL_TESTS_TOOLS_APPEND_FAILURE_FIXTURE_H
#define K9EREPL_TESTS_TOOLS_APPEND_FAILURE_FIXTURE_H

#include <string>

#include "tools/tool_fixture.h"

namespace k9erepl::test {

class ToolAppendFailure : public ToolTest {
  protected:
    // Fails and says exactly `sentence`.
    void ExpectFailure(const ToolRun& run, const std::string& sentence) {
        EXPECT_EQ(run.exitStatus, 1) << run;
        EXPECT_EQ(run.err, "k9repl append: " + sentence + "\n");
        EXPECT_EQ(run.out, "");
    }
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_TOOLS_APPEND_FAILURE_FIXTURE_H
