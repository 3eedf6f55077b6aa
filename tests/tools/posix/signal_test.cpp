// Each signal that is a request to finish, and its exit status.
#include <csignal>
#include <string>

#include "tools/tool_fixture.h"

namespace k9erepl::test {

namespace {

class ToolSignal : public ToolTest {};

TEST_F(ToolSignal, EndsAWaitForInput) {
    i64 rev = 0;
    for (const auto& [signal, name] : {std::pair(SIGINT, "SIGINT"), std::pair(SIGTERM, "SIGTERM"),
                                       std::pair(SIGHUP, "SIGHUP")}) {
        ChildProcess child(
            PipedOptions({"append", "--create", "--conn",
                          Conn("flush_mode=PerTrans;flush_trans_num=1"), "--per-trans", "1"}));
        const std::string line = std::string("a line for <") + name + ">";
        child.Write(line + "\n");
        ASSERT_TRUE(WaitUntilFileHolds(StorageFile(), line));
        child.Signal(signal);
        const ToolRun run = Finish(child);
        EXPECT_EQ(run.exitStatus, 128 + signal);
        EXPECT_EQ(run.err, std::string("k9repl append: interrupted by ") + name +
                               "; safely stored up to revision " + std::to_string(++rev) + "\n");
    }
    EXPECT_EQ(Stat("nextRev"), "4");
}

}  // namespace

}  // namespace k9erepl::test
