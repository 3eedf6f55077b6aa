// The scripts of the repository at the command line: each tells what it does, and none takes a slip
// for permission to begin.
#include <filesystem>
#include <set>
#include <string>

#include "tools/tool_fixture.h"

namespace k9erepl::test {
namespace {

class Scripts : public ToolTest {
  protected:
    ToolRun RunScript(const std::string& name, const std::string& argument) {
        ChildOptions options = PipedOptions({});
        options.arguments = {"/bin/bash", SOURCE_FOLDER "/scripts/" + name, argument};
        ChildProcess child(options);
        child.CloseInput();
        return Finish(child);
    }

    // All but those that are only sourced.
    static std::set<std::string> Names() {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(SOURCE_FOLDER "/scripts")) {
            names.insert(entry.path().filename().string());
        }
        names.erase("common.sh");
        names.erase("install.sh");
        EXPECT_GE(names.size(), 13U);
        return names;
    }
};

TEST_F(Scripts, AnswerHelpWithTheirOwnCallAndNothingElse) {
    for (const std::string& name : Names()) {
        for (const char* option : {"--help", "-h"}) {
            const ToolRun run = RunScript(name, option);
            EXPECT_EQ(run.exitStatus, 0) << name << ' ' << run;
            EXPECT_NE(run.out.find("scripts/" + name), std::string::npos) << name << ' ' << run;
            EXPECT_EQ(run.out.find("set -"), std::string::npos) << name << ' ' << run;
            EXPECT_EQ(run.err, "");
        }
    }
}

TEST_F(Scripts, RefuseAnUnknownOption) {
    for (const std::string& name : Names()) {
        const ToolRun run = RunScript(name, "--no-such-option");
        EXPECT_EQ(run.exitStatus, 2) << name << ' ' << run;
        EXPECT_EQ(run.err, name + ": unknown option '--no-such-option'; --help tells\n");
        EXPECT_EQ(run.out, "");
    }
}

}  // namespace
}  // namespace k9erepl::test
