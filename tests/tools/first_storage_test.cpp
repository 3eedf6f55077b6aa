// The first program of the README: it builds, runs and prints what the README says.
#include <string>

#include "tools/tool_fixture.h"

namespace k9erepl::test {

namespace {

class FirstStorage : public ToolTest {
  protected:
    ToolRun RunExample(const std::string& path) {
        ChildOptions options = PipedOptions({});
        options.arguments = {FIRST_STORAGE_PROGRAM, "file=" + path};
        ChildProcess child(options);
        ToolRun run = Finish(child);
        std::erase(run.out, '\r');  // where the C library ends lines of text so
        std::erase(run.err, '\r');
        return run;
    }
};

TEST_F(FirstStorage, PrintsWhatItAppends) {
    const ToolRun run = RunExample(StorageFile());
    EXPECT_EQ(run.exitStatus, 0) << run;
    EXPECT_EQ(run.out, "1: hello\n2: replicated world\n");
}

TEST_F(FirstStorage, FindsItsRecordsAgain) {
    EXPECT_EQ(RunExample(StorageFile()).exitStatus, 0);
    EXPECT_EQ(RunExample(StorageFile()).out,
              "1: hello\n2: replicated world\n3: hello\n4: replicated world\n");
}

TEST_F(FirstStorage, IsTheProgramOfTheReadme) {
    const std::string program = ReadText(SOURCE_FOLDER "/examples/first_storage.c");
    EXPECT_NE(ReadText(SOURCE_FOLDER "/README.md").find("```c\n" + program + "```\n"),
              std::string::npos);
}

TEST_F(FirstStorage, TellsAFailure) {
    WriteText(StorageFile(), "no storage");
    const ToolRun run = RunExample(StorageFile());
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_NE(run.err.find("the storage failed with code 4\n"), std::string::npos) << run;
}

}  // namespace

}  // namespace k9erepl::test
