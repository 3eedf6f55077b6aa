// Connection strings with a slip in them are refused before anything is opened; limits are told
// with the setting that sets them; reading commands need no block_size.
#include <string>

#include "tools/tool_fixture.h"

namespace k9erepl::test {

namespace {

class ToolSettings : public ToolTest {
  protected:
    // Every command refuses `conn` with exactly `sentence`, before it looks at any file.
    void ExpectRefused(const std::string& conn, const std::string& sentence) {
        const ToolRun run = Run({"append", "--create", "--conn", conn}, "x\n");
        EXPECT_EQ(run.exitStatus, 2) << conn;
        EXPECT_EQ(run.err, "k9repl append: --conn: " + sentence + "; see k9repl append --help\n");
        EXPECT_EQ(run.out, "");
        EXPECT_FALSE(Exists(StorageFile()));
    }
    std::string With(const std::string& settings) const {
        return "file=" + StorageFile() + ";" + settings;
    }
    void AppendOneOf(std::size_t dataSize) {
        const std::string conn = Conn("block_size=" + std::to_string(dataSize + 24));
        ASSERT_EQ(
            Run({"append", "--create", "--conn", conn}, std::string(dataSize, 'x')).exitStatus, 0);
    }
};

TEST_F(ToolSettings, AnUnknownKeyIsRefusedWithTheNearestKnownOne) {
    ExpectRefused(With("flush_transnum=1"),
                  "unknown key 'flush_transnum'; the nearest known one is 'flush_trans_num'");
    ExpectRefused(With("Force_Flush=yes"),
                  "unknown key 'Force_Flush'; the nearest known one is 'force_flush'");
    ExpectRefused("path=" + StorageFile(), "unknown key 'path'; the nearest known one is 'file'");
    ExpectRefused(With("=yes"), "unknown key ''; the nearest known one is 'file'");
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
        ExpectRefused(With(std::string(key) + "=" + value),
                      std::string("unknown value '") + value + "' of " + key +
                          "; the nearest known one is '" + nearest + "'");
    }
}

TEST_F(ToolSettings, ANumberIsDigits) {
    for (const char* setting : {"block_size=1MB", "flush_timeout=0x10", "index_hint=five"}) {
        ExpectRefused(With(setting), std::string(setting) + " is no number; write digits only");
    }
}

TEST_F(ToolSettings, AKeyThatIsGivenTwiceIsRefused) {
    ExpectRefused(With("force_flush=no;index_hint=5,force_flush=yes"),
                  "'force_flush' is given 2 times; only the first would count: leave one");
}

TEST_F(ToolSettings, AKeyWithoutAValueIsRefused) {
    for (const char* item : {"force_flush", "force_flush=", " force_flush = "}) {
        ExpectRefused(With(item),
                      "'force_flush' has no value; write force_flush=VALUE, or leave it out");
    }
}

TEST_F(ToolSettings, ASettingThatWouldHaveNoEffectIsRefused) {
    const char* const idle[][2] = {{"flush_trans_num=1", "flush_mode=PerTrans"},
                                   {"flush_mode=PerTrans;flush_data_size=1", "flush_mode=PerData"},
                                   {"commit_barrier=yes", "force_flush=yes"},
                                   {"async_mode=no;async_buffer_size=4", "async_mode=yes"}};
    for (const auto& [settings, needed] : idle) {
        const std::string given = settings;
        const std::size_t begin = given.find(';') + 1;  // 0 without one
        ExpectRefused(With(given), given.substr(begin, given.find('=', begin) - begin) +
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

TEST_F(ToolSettings, ReadingCommandsChooseTheBlockSizeThemselves) {
    AppendOneOf(3000000);
    for (const char* settings : {"", "block_size=200", "cache_type=AllInMem;flush_mode=NoFlush"}) {
        const ToolRun run = Run({"cat", "--conn", Conn(settings)});
        EXPECT_EQ(run.exitStatus, 0) << run.err;
        EXPECT_EQ(run.out, std::string(3000000, 'x') + "\n");
        EXPECT_EQ(run.err, "");
    }
    EXPECT_EQ(Stat("oldestRev"), "1");
}

TEST_F(ToolSettings, WritingCommandsNameTheBlockSizeThatIsTooSmall) {
    AppendOneOf(3000000);
    const ToolRun run = Run({"append", "--conn", Conn()}, "y\n");
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_EQ(run.err,
              "k9repl append: cannot load the storage '" + StorageFile() +
                  "': Rec size with header 3000024 exceeds free block size 1048672 (code 2, "
                  "RC_INVALID_ARG: an argument, a setting or the file's signature is wrong); give "
                  "more than block_size=1048672, the default: with block_size=10485760 every "
                  "record fits\n");
    EXPECT_EQ(Run({"append", "--conn", Conn("block_size=10485760")}, "y\n").exitStatus, 0);
}

}  // namespace

}  // namespace k9erepl::test
