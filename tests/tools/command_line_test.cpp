// What a command line may say: connection strings with a slip in them are refused before anything
// is opened, limits are told with the setting that sets them, help teaches; and the failures of
// reading commands.
#include <string>

#include "tools/tool_fixture.h"

namespace k9erepl::test {
namespace {

class ToolSettings : public ToolTest {
  protected:
    // Every command refuses the storage with these settings with exactly `sentence`, before it
    // looks at any file.
    void ExpectRefused(const std::string& settings, const std::string& sentence) {
        SCOPED_TRACE(settings);
        ExpectFailure(
            Run({"append", "--create", "--conn", "file=" + StorageFile() + ";" + settings}, "x\n"),
            "append: --conn: " + sentence + "; see k9repl append --help", 2);
        EXPECT_FALSE(Exists(StorageFile()));
    }
    void AppendOneOf(std::size_t dataSize) {
        const std::string conn = Conn("block_size=" + std::to_string(dataSize + 24));
        ASSERT_EQ(
            Run({"append", "--create", "--conn", conn}, std::string(dataSize, 'x')).exitStatus, 0);
    }
};

TEST_F(ToolSettings, AnUnknownKeyIsRefusedWithTheNearestKnownOne) {
    const char* const slips[][2] = {{"flush_transnum", "flush_trans_num"},
                                    {"Force_Flush", "force_flush"},
                                    {"path", "file"},
                                    {"", "file"}};
    for (const auto& [key, nearest] : slips) {
        ExpectRefused(
            std::string(key) + "=yes",
            std::string("unknown key '") + key + "'; the nearest known one is '" + nearest + "'");
    }
}

TEST_F(ToolSettings, AnUnknownWordIsRefusedWithTheNearestKnownOne) {
    const char* const slips[][3] = {{"flush_mode", "perdata", "PerData"},
                                    {"flush_mode", "NoFlushing", "NoFlush"},
                                    {"cache_type", "AllInMemory", "AllInMem"},
                                    {"cache_type", "last20", "Last100"},
                                    {"cache_type", "Last20x", "Last100"},
                                    {"force_flush", "true", "yes"},
                                    {"write_through", "yes ", "yes"},
                                    {"read_only", "y", "yes"},
                                    {"file_lock", "n", "no"},
                                    {"check", "on", "no"},
                                    {"async_mode", "maybe", "yes"}};
    for (const auto& [key, value, nearest] : slips) {
        ExpectRefused(std::string(key) + "=" + value,
                      std::string("unknown value '") + value + "' of " + key +
                          "; the nearest known one is '" + nearest + "'");
    }
}

TEST_F(ToolSettings, ANumberIsDigitsAndAKeyHasOneValue) {
    for (const char* setting : {"block_size=1MB", "flush_timeout=0x10", "index_hint=five"}) {
        ExpectRefused(setting, std::string(setting) + " is no number; write digits only");
    }
    ExpectRefused("force_flush=no;index_hint=5,force_flush=yes",
                  "'force_flush' is given 2 times; only the first would count: leave one");
    for (const char* item : {"force_flush", "force_flush=", " force_flush = "}) {
        ExpectRefused(item, "'force_flush' has no value; write force_flush=VALUE, or leave it out");
    }
}

TEST_F(ToolSettings, ASettingThatWouldHaveNoEffectIsRefused) {
    const char* const idle[][3] = {
        {"", "flush_trans_num=1", "flush_mode=PerTrans"},
        {"flush_mode=PerTrans;", "flush_data_size=1", "flush_mode=PerData"},
        {"", "commit_barrier=yes", "force_flush=yes"},
        {"async_mode=no;", "async_buffer_size=4", "async_mode=yes"}};
    for (const auto& [others, setting, needed] : idle) {
        ExpectRefused(others + std::string(setting), UpTo(setting, "=") +
                                                         " has no effect without " + needed +
                                                         "; add that, or leave it out");
    }
}

TEST_F(ToolSettings, EverySettingIsKnown) {
    const std::string conn =
        "; file = " + StorageFile() + ",index_file=" + File("i") +
        ";file_initial_size=0;file_size_delta=+0;file_lock=yes;read_only=no;check=no;"
        "force_flush=yes;commit_barrier=yes;write_through=no;cache_type=Last20;block_size=4096;"
        "memory_reserve=5;read_buffers_count=2;flush_mode=PerTrans;flush_trans_num=-1;"
        "flush_timeout=100;index_hint=5;aux_affinity=0;async_mode=YES;async_buffer_size=4;";
    const ToolRun run = Run({"append", "--create", "--conn", conn}, "x\n");
    EXPECT_EQ(run.exitStatus, 0) << run;
    EXPECT_EQ(Cat(), "x\n");
}

TEST_F(ToolSettings, ReadingCommandsChooseTheBlockSizeThemselvesAndWritingOnesNameIt) {
    AppendOneOf(3000000);
    for (const char* settings : {"", "block_size=200", kNoFile}) {
        ExpectReport(Run({"cat", "--conn", Conn(settings)}), std::string(3000000, 'x') + "\n");
    }
    EXPECT_EQ(Stat("oldestRev"), "1");
    ExpectFailure(Command("append", {}, "y\n"),
                  "append: cannot load the storage '" + StorageFile() +
                      "': Rec size with header 3000024 exceeds free block size 1048672 " +
                      kInvalidArg +
                      "; give more than block_size=1048672, the default: with "
                      "block_size=10485760 every record fits");
    EXPECT_EQ(Run({"append", "--conn", Conn("block_size=10485760")}, "y\n").exitStatus, 0);
}

using ToolFailure = ToolTest;

TEST_F(ToolFailure, CatOfAMissingOrDamagedStorageNamesIt) {
    ExpectFailure(Command("cat"), "cat: " + Missing());
    ASSERT_EQ(Append("one\n").exitStatus, 0);
    ResizeFile(StorageFile(), 1030);
    const ToolRun run = Command("cat");
    EXPECT_EQ(run.exitStatus, 1);
    const std::string begin = "k9repl cat: cannot load the storage '" + StorageFile() + "': ";
    EXPECT_TRUE(run.err.starts_with(begin)) << run;
    EXPECT_TRUE(run.err.ends_with(
        "(code 32801, RC_FILE_CORRUPT: the storage file's structure cannot be loaded)\n"))
        << run;
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

TEST_F(ToolFailure, TheLogStaysTheUsersWhenTheUserSteersIt) {
    m_environment.push_back("K9SYS_LOG_FILE=" + File("library.log"));
    ExpectFailure(Run({"stat", "--conn", Conn("block_size=1")}),
                  "stat: cannot open the storage '" + StorageFile() + "' " + kInvalidArg);
    EXPECT_TRUE(WaitUntilFileHolds(File("library.log"), "Wrong block_size value 1,"));
}

TEST_F(ToolFailure, AWrongCommandLineIsExplained) {
    const ToolRun noCommand = Run({});
    EXPECT_EQ(noCommand.exitStatus, 2);
    EXPECT_EQ(noCommand.err, "k9repl: A subcommand is required; see k9repl --help\n");
    ExpectFailure(Run({"cat"}), "cat: --conn is required; see k9repl cat --help", 2);
    ExpectFailure(Command("cat", {"--from", "5", "--to", "3"}), "cat: --from 5 is above --to 3", 2);
    EXPECT_EQ(Command("append", {"--per-trans", "0"}).exitStatus, 2);
    EXPECT_EQ(Command("cat", {"--from", "-1"}).exitStatus, 2);
    EXPECT_EQ(Command("cat", {"--format", "xml"}).exitStatus, 2);
}

TEST_F(ToolFailure, HelpTeachesEveryCommandByExamples) {
    for (const std::string command : {"append", "cat", "stat", "clear", "truncate"}) {
        const ToolRun run = Run({command, "--help"});
        EXPECT_EQ(run.exitStatus, 0);
        ExpectPrinted(run, "Examples:");
        ExpectPrinted(run, "k9repl " + command);
    }
    ExpectPrinted(Run({"--help"}), "Exit status: 0 success");
}

}  // namespace
}  // namespace k9erepl::test
