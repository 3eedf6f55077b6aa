// What the tests of clear's failures share: how a failure is told, and that it leaves no traces.
#ifndef K9EREPL_TESTS_TOOLS_CLEAR_FAILURE_FIXTURE_H
#define K9EREPL_TESTS_TOOLS_CLEAR_FAILURE_FIXTURE_H

#include <string>

#include "tools/clear_fixture.h"

namespace k9erepl::test {

inline constexpr const char* kEverything = "r1\nr2\nr3\nr4\nr5\n";

class ToolClearFailure : public ToolClearTest {
  protected:
    void ExpectFailure(const ToolRun& run, const std::string& sentence, int exitStatus = 1) {
        EXPECT_EQ(run.exitStatus, exitStatus) << run;
        EXPECT_EQ(run.err, "k9repl clear: " + sentence + "\n");
        EXPECT_EQ(run.out, "");
    }

    // The files that a squeeze leaves when it goes wrong, and no other storage file.
    void ExpectNoTraces() {
        EXPECT_FALSE(Exists(Temporary()));
        EXPECT_FALSE(Exists(Backup()));
    }

    std::string Cannot(const std::string& cause) const {
        return "cannot clear the storage '" + StorageFile() + "': " + cause + " " + kSystemError;
    }
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_TOOLS_CLEAR_FAILURE_FIXTURE_H
