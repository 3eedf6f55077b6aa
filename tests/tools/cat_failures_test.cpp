// Failures of cat and stat, and the command line's own.
#include <string>

#include "tools/tool_fixture.h"

namespace k9erepl::test {

namespace {

class ToolFailure : public ToolTest {};

TEST_F(ToolFailure, CatOfAMissingStorageNamesIt) {
    const ToolRun run = Run({"cat", "--conn", Conn()});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_EQ(run.err,
              "k9repl cat: there is no storage file '" + StorageFile() +
                  "'; append --create makes it (code 4, RC_SYSTEM_ERROR: a call to the operating "
                  "system failed)\n");
}

TEST_F(ToolFailure, AReaderThatHasReadEnoughIsNoFailure) {
    ASSERT_EQ(Append(std::string(500000, '\n')).exitStatus, 0);
    for (const char* command : {"cat", "stat", "verify"}) {
        ChildOptions options = PipedOptions({command, "--conn", Conn(), "--format", "json"});
        options.outputPath.clear();
        ChildProcess child(options);
        child.CloseOutput();
        const ToolRun run = Finish(child);
        EXPECT_EQ(run.exitStatus, 0) << command;
        EXPECT_EQ(run.err, "") << command;
    }
}

TEST_F(ToolFailure, ADamagedStorageIsToldByItsCode) {
    ASSERT_EQ(Append("one\n").exitStatus, 0);
    ResizeFile(StorageFile(), 1030);
    const ToolRun run = Run({"cat", "--conn", Conn()});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_NE(run.err.find("cannot load the storage '" + StorageFile() + "': "), std::string::npos);
    EXPECT_NE(run.err.find("(code 32801, RC_FILE_CORRUPT: the storage file's structure cannot be "
                           "loaded)\n"),
              std::string::npos)
        << run;
}

TEST_F(ToolFailure, TheLogStaysTheUsersWhenTheUserSteersIt) {
    m_environment.push_back("K9SYS_LOG_FILE=" + File("library.log"));
    const ToolRun run = Run({"stat", "--conn", Conn("block_size=1")});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_EQ(run.err, "k9repl stat: cannot open the storage '" + StorageFile() +
                           "' (code 2, RC_INVALID_ARG: an argument, a setting or the file's "
                           "signature is wrong)\n");
    EXPECT_TRUE(WaitUntilFileHolds(File("library.log"), "Wrong block_size value 1,"));
}

TEST_F(ToolFailure, AWrongCommandLineIsExplained) {
    const ToolRun noCommand = Run({});
    EXPECT_EQ(noCommand.exitStatus, 2);
    EXPECT_EQ(noCommand.err, "k9repl: A subcommand is required; see k9repl --help\n");
    const ToolRun noConn = Run({"cat"});
    EXPECT_EQ(noConn.exitStatus, 2);
    EXPECT_EQ(noConn.err, "k9repl cat: --conn is required; see k9repl cat --help\n");
}

TEST_F(ToolFailure, OptionsOutOfRangeAreRefused) {
    EXPECT_EQ(Run({"append", "--conn", Conn(), "--per-trans", "0"}).exitStatus, 2);
    EXPECT_EQ(Run({"cat", "--conn", Conn(), "--from", "-1"}).exitStatus, 2);
    EXPECT_EQ(Run({"cat", "--conn", Conn(), "--format", "xml"}).exitStatus, 2);
    const ToolRun backwards = Run({"cat", "--conn", Conn(), "--from", "5", "--to", "3"});
    EXPECT_EQ(backwards.exitStatus, 2);
    EXPECT_EQ(backwards.err, "k9repl cat: --from 5 is above --to 3\n");
}

TEST_F(ToolFailure, HelpTeachesEveryCommandByExamples) {
    for (const char* command : {"append", "cat", "stat", "clear", "truncate"}) {
        const ToolRun run = Run({command, "--help"});
        EXPECT_EQ(run.exitStatus, 0);
        EXPECT_NE(run.out.find("Examples:"), std::string::npos) << command;
        EXPECT_NE(run.out.find(std::string("k9repl ") + command), std::string::npos) << command;
    }
    EXPECT_NE(Run({"--help"}).out.find("Exit status: 0 success"), std::string::npos);
}

}  // namespace

}  // namespace k9erepl::test
