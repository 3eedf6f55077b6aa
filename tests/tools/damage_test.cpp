// Damage in the middle of a storage file: no command passes over it in silence, and none writes
// behind it unasked.
#include <filesystem>
#include <string>

#include "tools/tool_fixture.h"

namespace k9erepl::test {

namespace {

constexpr int kDamaged = 4;
constexpr i64 kRunSize = 24 + 2 + 32;  // a record of two bytes and its commit block

class ToolDamage : public ToolTest {
  protected:
    // Records r1 to r5, each in a flush of its own; that of r2 is damaged.
    void FillAndDamage(const std::string& settings = {}) {
        const std::string conn = Conn("flush_mode=PerTrans;flush_trans_num=1;" + settings);
        ASSERT_EQ(
            Run({"append", "--create", "--per-trans", "1", "--conn", conn}, "r1\nr2\nr3\nr4\nr5\n")
                .exitStatus,
            0);
        PatchBytes(StorageFile(), 1056 + kRunSize, std::vector<u8>{0x55});
    }
    // Without it a load reads everything.
    void RemoveIndex() { std::filesystem::remove(StorageFile() + "-idx"); }

    std::string Damage() const {
        return "the storage file '" + StorageFile() +
               "' is damaged in the middle, at offset 1114, behind revision 1; revisions 3 to 5 "
               "lie behind the damage";
    }
    std::string Tail() const { return StorageFile() + ".damaged-tail"; }
};

TEST_F(ToolDamage, CatPrintsWhatLiesBeforeItAndSaysSo) {
    FillAndDamage();
    RemoveIndex();
    const std::vector<u8> before = ReadBytes(StorageFile());
    const ToolRun run = Run({"cat", "--conn", Conn()});
    EXPECT_EQ(run.exitStatus, kDamaged);
    EXPECT_EQ(run.out, "r1\n");
    EXPECT_EQ(run.err, "k9repl cat: " + Damage() + " and are not printed\n");
    EXPECT_EQ(ReadBytes(StorageFile()), before);
    EXPECT_FALSE(Exists(Tail()));
    EXPECT_FALSE(Exists(StorageFile() + "-idx"));
}

TEST_F(ToolDamage, CatSaysSoThoughTheLogGoesElsewhere) {
    FillAndDamage();
    RemoveIndex();
    m_environment.push_back("K9SYS_LOG_FILE=" + File("library.log"));
    const ToolRun run = Run({"cat", "--conn", Conn()});
    EXPECT_EQ(run.exitStatus, kDamaged);
    EXPECT_EQ(run.err, "k9repl cat: " + Damage() + " and are not printed\n");
}

TEST_F(ToolDamage, AppendWritesNothingBehindIt) {
    FillAndDamage();
    RemoveIndex();
    const std::vector<u8> before = ReadBytes(StorageFile());
    for (const char* input : {"new\n", ""}) {
        const ToolRun run = Append(input);
        EXPECT_EQ(run.exitStatus, kDamaged);
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err, "k9repl append: " + Damage() +
                               "; nothing was appended: --accept-damage allows it\n");
        EXPECT_EQ(ReadBytes(StorageFile()), before);
    }
}

TEST_F(ToolDamage, AppendWritesBehindItWhenThatIsAccepted) {
    FillAndDamage();
    RemoveIndex();
    const ToolRun run = Append("new\n", {"--accept-damage"});
    EXPECT_EQ(run.exitStatus, 0) << run;
    EXPECT_EQ(run.err, "k9repl append: note: " + Damage() + "\n");
    EXPECT_EQ(Cat(), "r1\nnew\n");
    EXPECT_TRUE(Exists(Tail()));
}

TEST_F(ToolDamage, StatTellsIt) {
    FillAndDamage();
    RemoveIndex();
    const ToolRun run = Run({"stat", "--conn", Conn()});
    EXPECT_EQ(run.exitStatus, kDamaged);
    EXPECT_NE(run.out.find("damage at offset     1114\n"
                           "last good revision   1\n"
                           "revisions beyond     3 to 5\n"),
              std::string::npos)
        << run;
    EXPECT_EQ(run.err, "k9repl stat: " + Damage() + "\n");
    EXPECT_FALSE(Exists(Tail()));
}

TEST_F(ToolDamage, StatFindsWhatAnIndexPassesOver) {
    // Two records a block, and only the last blocks are loaded.
    const std::string settings = "block_size=262;cache_type=Last1;index_hint=1";
    const std::string conn = Conn("flush_mode=PerTrans;flush_trans_num=1;" + settings);
    std::string lines;
    for (int i = 0; i < 6; ++i) {
        lines += std::string(100, 'x') + "\n";
    }
    ASSERT_EQ(Run({"append", "--create", "--per-trans", "1", "--conn", conn}, lines).exitStatus, 0);
    ASSERT_EQ(Run({"append", "--conn", conn}).exitStatus, 0);  // lists all blocks in the index
    PatchBytes(StorageFile(), 1056 + 100 + 24 + 32, std::vector<u8>{0x55});
    EXPECT_EQ(Run({"cat", "--from", "6", "--conn", Conn(settings)}).exitStatus, 0);
    const ToolRun run = Run({"stat", "--conn", Conn(settings)});
    EXPECT_EQ(run.exitStatus, kDamaged) << run;
    EXPECT_NE(run.out.find("next revision        7\n"), std::string::npos) << run;
    EXPECT_NE(run.out.find("damage at offset     1212\n"), std::string::npos) << run;
}

TEST_F(ToolDamage, VerifyNamesTheTailThatALoadHasKept) {
    FillAndDamage();
    RemoveIndex();
    ASSERT_EQ(Append("new\n", {"--accept-damage"}).exitStatus, 0);
    const ToolRun run = Run({"verify", "--conn", Conn()});
    EXPECT_EQ(run.exitStatus, 0) << run;
    EXPECT_NE(run.out.find("damaged tail         '" + Tail() + "' (232 bytes)\n"),
              std::string::npos)
        << run;
    const ToolRun json = Run({"verify", "--conn", Conn(), "--format", "json"});
    EXPECT_NE(json.out.find("\"damagedTailFile\":" + AsJson(Tail()) + ",\"damagedTailSize\":232"),
              std::string::npos)
        << json;
    EXPECT_EQ(Stat("damagedTailFile"), AsJson(Tail()));
}

}  // namespace

}  // namespace k9erepl::test
