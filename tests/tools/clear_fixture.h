// What the tests of clear share: a small storage, and runs of the command on it.
#ifndef K9EREPL_TESTS_TOOLS_CLEAR_FIXTURE_H
#define K9EREPL_TESTS_TOOLS_CLEAR_FIXTURE_H

#include <string>
#include <vector>

#include "tools/tool_fixture.h"

namespace k9erepl::test {

class ToolClearTest : public ToolTest {
  protected:
    // Revisions 1 to 5 with the data r1 to r5: 1218 bytes, one commit block behind all of them.
    void Fill() { ASSERT_EQ(Append("r1\nr2\nr3\nr4\nr5\n").exitStatus, 0); }

    std::vector<std::string> ClearArguments(const std::string& to, const std::string& mode,
                                            const std::string& settings = {}) const {
        return {"clear", "--conn", Conn(settings), "--to", to, "--mode", mode};
    }
    ToolRun Clear(const std::string& to, const std::string& mode,
                  const std::string& settings = {}) {
        return Run(ClearArguments(to, mode, settings));
    }

    // Success with exactly this report and without a word beside it.
    static void ExpectReport(const ToolRun& run, const std::string& report) {
        EXPECT_EQ(run.exitStatus, 0) << run;
        EXPECT_EQ(run.out, report);
        EXPECT_EQ(run.err, "");
    }

    std::string Backup() const { return StorageFile() + ".backup"; }
    std::string Temporary() const { return StorageFile() + ".temporary"; }
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_TOOLS_CLEAR_FIXTURE_H
