// Signals in the middle of the work: what was read is committed, and the storage closed.
#include <csignal>
#include <string>

#include "tools/tool_fixture.h"

namespace k9erepl::test {

namespace {

class ToolInterrupt : public ToolTest {
  protected:
    // Starts an append whose every commit reaches the file at once.
    ChildOptions AppendFromPipe(const std::string& perTrans) const {
        return PipedOptions({"append", "--create", "--conn",
                             Conn("flush_mode=PerTrans;flush_trans_num=1"), "--per-trans",
                             perTrans});
    }
};

TEST_F(ToolInterrupt, CommitsTheOpenTransaction) {
    ChildProcess child(AppendFromPipe("100"));
    std::string lines;
    for (int i = 1; i <= 150; ++i) {
        lines += "line " + std::to_string(i) + "\n";
    }
    child.Write(lines + "a part of a line");  // one piece of a pipe: read as one
    ASSERT_TRUE(WaitUntilFileHolds(StorageFile(), "line 100"));
    child.Signal(SIGTERM);
    const ToolRun run = Finish(child);
    EXPECT_EQ(run.exitStatus, 128 + SIGTERM);
    EXPECT_EQ(run.out.substr(0, run.out.find(',')), "appended 150 records");
    EXPECT_EQ(run.err, "k9repl append: interrupted by SIGTERM; safely stored up to revision 150\n");
    EXPECT_EQ(Cat(), lines);
}

TEST_F(ToolInterrupt, EndsAWaitForInput) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        ChildProcess child(AppendFromPipe("1"));
        const std::string line = "a line for signal <" + std::to_string(signal) + ">";
        child.Write(line + "\n");
        ASSERT_TRUE(WaitUntilFileHolds(StorageFile(), line));
        child.Signal(signal);
        EXPECT_EQ(Finish(child).exitStatus, 128 + signal);
    }
    EXPECT_EQ(Stat("nextRev"), "4");
}

TEST_F(ToolInterrupt, EndsACatWhoseReaderDoesNotRead) {
    ASSERT_EQ(Append(std::string(500000, '\n')).exitStatus, 0);
    ChildOptions options = PipedOptions({"cat", "--conn", Conn(), "--format", "json"});
    options.outputPath.clear();
    ChildProcess child(options);
    char byte = 0;
    ASSERT_EQ(child.Read(&byte, 1, 60000), 1U);  // it writes, and will soon wait
    child.Signal(SIGTERM);
    const ToolRun run = Finish(child);
    EXPECT_EQ(run.exitStatus, 128 + SIGTERM);
    EXPECT_EQ(run.err, "k9repl cat: interrupted by SIGTERM\n");
}

}  // namespace

}  // namespace k9erepl::test
