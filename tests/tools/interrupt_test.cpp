// Interrupts in the middle of the work: what was read is committed, and the storage closed.
#include <string>

#include "tools/tool_fixture.h"

namespace k9erepl::test {

namespace {

class ToolInterrupt : public ToolTest {
  protected:
    // Starts an append whose every commit reaches the file at once.
    ChildOptions AppendFromPipe(const std::string& perTrans) const {
        ChildOptions options =
            PipedOptions({"append", "--create", "--conn",
                          Conn("flush_mode=PerTrans;flush_trans_num=1"), "--per-trans", perTrans});
        options.interruptible = true;
        return options;
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
    child.Interrupt();
    const ToolRun run = Finish(child);
    EXPECT_EQ(run.exitStatus, 130);
    EXPECT_EQ(run.out.substr(0, run.out.find(',')), "appended 150 records");
    EXPECT_EQ(run.err, "k9repl append: interrupted by SIGINT; safely stored up to revision 150\n");
    EXPECT_EQ(Cat(), lines);
}

TEST_F(ToolInterrupt, EndsAWaitForInput) {
    ChildProcess child(AppendFromPipe("1"));
    child.Write("the only line\n");
    ASSERT_TRUE(WaitUntilFileHolds(StorageFile(), "the only line"));
    child.Interrupt();
    const ToolRun run = Finish(child);
    EXPECT_EQ(run.exitStatus, 130);
    EXPECT_EQ(run.err, "k9repl append: interrupted by SIGINT; safely stored up to revision 1\n");
    EXPECT_EQ(Stat("nextRev"), "2");
}

TEST_F(ToolInterrupt, EndsACatWhoseReaderDoesNotRead) {
    ASSERT_EQ(Append(std::string(500000, '\n')).exitStatus, 0);
    ChildOptions options = PipedOptions({"cat", "--conn", Conn(), "--format", "json"});
    options.outputPath.clear();
    options.interruptible = true;
    ChildProcess child(options);
    char byte = 0;
    ASSERT_EQ(child.Read(&byte, 1, 60000), 1U);  // it writes, and will soon wait
    child.Interrupt();
    const ToolRun run = Finish(child);
    EXPECT_EQ(run.exitStatus, 130);
    EXPECT_EQ(run.err, "k9repl cat: interrupted by SIGINT\n");
}

}  // namespace

}  // namespace k9erepl::test
