// Standard output on a disk that is full.
#include "tools/tool_fixture.h"

namespace k9erepl::test {

namespace {

class ToolFullDisk : public ToolTest {};

TEST_F(ToolFullDisk, CatToAFullDiskFails) {
    ASSERT_EQ(Append("one\n").exitStatus, 0);
    m_outputPath = "/dev/full";
    const ToolRun run = Run({"cat", "--conn", Conn()});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_EQ(run.err,
              "k9repl cat: cannot write to standard output: No space left on device "
              "(system error 28)\n");
}

TEST_F(ToolFullDisk, HelpToAFullDiskFails) {
    m_outputPath = "/dev/full";
    const ToolRun run = Run({"cat", "--help"});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_EQ(run.err,
              "k9repl: cannot write to standard output: No space left on device (system error "
              "28)\n");
}

}  // namespace

}  // namespace k9erepl::test
