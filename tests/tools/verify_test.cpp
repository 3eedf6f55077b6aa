// What stat tells of a storage, what verify says of sound, torn and damaged storage files, and that
// no command passes over damage in silence or writes behind it unasked.
#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "tools/tool_fixture.h"

namespace k9erepl::test {
namespace {

constexpr int kTornEnd = 3;
constexpr int kDamaged = 4;
constexpr i64 kFirstRun = 1056;
constexpr i64 kRunSize = 24 + 2 + 32;  // a record of two bytes and its commit block

constexpr i64 RunAt(i64 rev) {
    return kFirstRun + (rev - 1) * kRunSize;
}

class ToolLook : public ToolTest {
  protected:
    // Records r1 to r5, each in a flush of its own.
    void FillEach() { AppendEach(kEverything, kEachCommit); }
    void AppendEach(std::string_view lines, const std::string& settings) {
        ASSERT_EQ(Run({"append", "--create", "--per-trans", "1", "--conn", Conn(settings)}, lines)
                      .exitStatus,
                  0);
    }
    void DamageAt(i64 offset) { PatchBytes(StorageFile(), offset, std::vector<u8>{0x55}); }
    void RemoveIndex() { std::filesystem::remove(StorageFile() + "-idx"); }
};

using ToolStat = ToolLook;

std::string Lines(int count, std::size_t size) {
    std::string lines;
    for (int i = 0; i < count; ++i) {
        lines += std::string(size, 'x') + "\n";
    }
    return lines;
}

TEST_F(ToolStat, TellsAnEmptyStorage) {
    ASSERT_EQ(Append("").exitStatus, 0);
    ExpectReport(Command("stat"), "storage file         " + StorageFile() +
                                      "\nindex file           " + StorageFile() +
                                      "-idx\n"
                                      "next revision        1\n"
                                      "oldest revision      none\n"
                                      "life number          0\n"
                                      "clear mark           0\n"
                                      "storage file size    1064\n"
                                      "index file size      32\n"
                                      "blocks in the index  0\n");
    ExpectReport(Command("stat", {"--format", "json"}),
                 "{\"file\":" + AsJson(StorageFile()) +
                     ",\"indexFile\":" + AsJson(StorageFile() + "-idx") +
                     ",\"nextRev\":1,\"oldestRev\":null,\"lifeNumber\":0,\"clearMark\":0,"
                     "\"fileSize\":1064,\"indexSize\":32,\"blocks\":0}\n");
}

TEST_F(ToolStat, TellsRevisionsSizesAndBlocks) {
    // Each record of 100 + 24 bytes fills a block of its own.
    const std::string settings = "block_size=138";
    const Words append = {"append", "--create", "--conn", Conn(settings)};
    ASSERT_EQ(Run(append, Lines(5, 100)).exitStatus, 0);
    // The load of a command that may write lists all blocks in the index.
    ASSERT_EQ(Run(append).exitStatus, 0);
    EXPECT_EQ(Stat("nextRev", settings), "6");
    EXPECT_EQ(Stat("oldestRev", settings), "1");
    EXPECT_EQ(Stat("fileSize", settings), std::to_string(1056 + 5 * 124 + 32));
    EXPECT_EQ(Stat("blocks", settings), "5");
    EXPECT_EQ(Stat("indexSize", settings), std::to_string(32 + 5 * 16));
}

TEST_F(ToolStat, FindsTheIndexFileWhereTheSettingsPutIt) {
    const std::string conn = "file = " + StorageFile() + ", index_file=" + File("side.idx");
    ASSERT_EQ(Run({"append", "--create", "--conn", conn}, "x\n").exitStatus, 0);
    ASSERT_EQ(Run({"append", "--conn", conn}).exitStatus, 0);  // lists the block in the index
    ExpectPrinted(Run({"stat", "--conn", conn}), "index file size      48\n");
    EXPECT_FALSE(Exists(StorageFile() + "-idx"));
}

TEST_F(ToolStat, LooksBesideAWriterAndWritesNothing) {
    ASSERT_EQ(Append("one\n").exitStatus, 0);
    RemoveIndex();
    ChildOptions options = PipedOptions({"append", "--conn", Conn(), "--ack"});
    options.outputPath.clear();
    ChildProcess writer(options);
    writer.Write("two\n");
    char ack[2];
    ASSERT_EQ(writer.Read(ack, sizeof ack, 60000), 2U);
    EXPECT_EQ(Stat("nextRev"), "3");
    EXPECT_EQ(Cat(), "one\ntwo\n");
    writer.Kill();
    writer.Wait();
}

TEST_F(ToolStat, TellsAStorageInMemory) {
    const ToolRun run = Run({"stat", "--conn", std::string(kNoFile) + ";file=:memory:"});
    EXPECT_EQ(run.exitStatus, 0) << run;
    ExpectPrinted(run, "storage file size    none\n");
}

class ToolVerify : public ToolLook {
  protected:
    // Runs verify and expects that it has not touched the file and kept nothing of it.
    ToolRun Verify(const Words& more = {}) {
        const std::vector<u8> before = ReadBytes(StorageFile());
        const auto time = std::filesystem::last_write_time(StorageFile());
        ToolRun run = Command("verify", more);
        EXPECT_EQ(ReadBytes(StorageFile()), before);
        EXPECT_EQ(std::filesystem::last_write_time(StorageFile()), time);
        EXPECT_FALSE(Exists(Tail()));
        return run;
    }
    // The file is in that state up to revision `lastRev`, which is also the number of its records;
    // `rest` follows the end of the data.
    void ExpectState(const std::string& state, int exitStatus, int lastRev,
                     const std::string& rest = "") {
        const ToolRun run = Verify();
        EXPECT_EQ(run.exitStatus, exitStatus);
        EXPECT_EQ(run.err, "");
        EXPECT_EQ(run.out, "storage file         " + StorageFile() + "\nstate                " +
                               state + "\nlast good revision   " + std::to_string(lastRev) +
                               "\nrecords              " + std::to_string(lastRev) +
                               "\ncommit blocks        " + std::to_string(lastRev + 1) +
                               "\nend of the data      " + std::to_string(RunAt(lastRev + 1)) +
                               "\n" + rest);
    }
    void ExpectRefused(const std::string& message) {
        ExpectFailure(Verify(), "verify: the storage file '" + StorageFile() + "' " + message);
    }
};

TEST_F(ToolVerify, ASoundFileHasNothingOrZerosBehindItsData) {
    ASSERT_EQ(Append("").exitStatus, 0);
    ExpectState("sound", 0, 0);
    ResizeFile(StorageFile(), kFirstRun);
    ExpectState("sound", 0, 0);
    EXPECT_EQ(Cat(), "");
    FillEach();
    ExpectState("sound", 0, 5);
    ResizeFile(StorageFile(), 3'000'000);
    ExpectState("sound", 0, 5);
}

TEST_F(ToolVerify, ATornEndIsWhatNoLoadTakes) {
    FillEach();
    ResizeFile(StorageFile(), RunAt(5) + 30);
    ResizeFile(StorageFile(), 2'000'000);
    ExpectState("torn end", kTornEnd, 4,
                "broken at offset     1314\n"
                "bytes abandoned      30\n");
    DamageAt(RunAt(5));
    EXPECT_EQ(Verify().exitStatus, kTornEnd) << "the last run damaged is one, too";
}

TEST_F(ToolVerify, DamageInTheMiddleTellsWhatLiesBeyond) {
    FillEach();
    DamageAt(RunAt(2));
    ExpectState("damage in the middle", kDamaged, 1,
                "broken at offset     1114\n"
                "bytes abandoned      225\n"
                "revisions beyond     3 to 5\n");
    EXPECT_EQ(Verify({"--format", "json"}).out,
              "{\"file\":" + AsJson(StorageFile()) +
                  ",\"state\":\"damaged\",\"fileSize\":1346,\"commitBlocks\":2,\"records\":1,"
                  "\"lastRev\":1,\"clearRev\":0,\"dataEnd\":1114,\"stopOffset\":1114,"
                  "\"abandonedBytes\":225,\"beyondFrom\":3,\"beyondTo\":5}\n");
}

TEST_F(ToolVerify, AgreesWithALoadAboutEveryDamagedByte) {
    FillEach();
    const std::vector<u8> whole = ReadBytes(StorageFile());
    for (i64 at = RunAt(2); at < RunAt(3); at += 5) {
        std::vector<u8> bytes = whole;
        bytes[static_cast<std::size_t>(at)] ^= 0x40;
        WriteBytes(StorageFile(), bytes);
        const bool damaged = Verify().exitStatus == kDamaged;
        RemoveIndex();
        EXPECT_EQ(Append("").exitStatus == kDamaged, damaged) << at;
        EXPECT_EQ(Exists(Tail()), damaged) << at;
        std::filesystem::remove(Tail());
    }
}

TEST_F(ToolVerify, NeedsNoRightToWrite) {
    FillEach();
    std::filesystem::permissions(StorageFile(), std::filesystem::perms::owner_read);
    m_obeysPermissions = true;
    EXPECT_EQ(Command("verify").exitStatus, 0);
}

TEST_F(ToolVerify, RefusesWhatIsNoStorageOrCannotBeLoaded) {
    WriteText(StorageFile(), "short");
    ExpectRefused("is no storage: it has no header");
    WriteText(StorageFile(), std::string(2000, 'x'));
    ExpectRefused("is no storage: it has another signature");
    std::filesystem::remove(StorageFile());
    ASSERT_EQ(Append("").exitStatus, 0);
    ResizeFile(StorageFile(), kFirstRun - 1);
    ExpectRefused("cannot be loaded: it has no first commit block");
    DamageAt(1024);
    ExpectRefused("cannot be loaded: it has no first commit block");
    PatchBytes(StorageFile(), 8, std::vector<u8>{4});
    ExpectRefused("is of another version");
}

TEST_F(ToolVerify, NamesAMissingFile) {
    ExpectFailure(Command("verify"), "verify: cannot read the storage file '" + StorageFile() +
                                         "': " + std::generic_category().message(ENOENT) +
                                         " (system error 2)");
    for (const char* conn : {"file=:memory:", "file=:Memory:"}) {
        ExpectFailure(Run({"verify", "--conn", conn}),
                      "verify: there is no storage file to verify: the connection string names "
                      "none");
    }
}

class ToolDamage : public ToolLook {
  protected:
    // Damages the record of r2. Without the index a load reads everything.
    void FillAndDamage() {
        FillEach();
        DamageAt(RunAt(2));
        RemoveIndex();
        m_before = ReadBytes(StorageFile());
    }
    std::string Damage() const {
        return "the storage file '" + StorageFile() +
               "' is damaged in the middle, at offset 1114, behind revision 1; revisions 3 to 5 "
               "lie behind the damage";
    }
};

TEST_F(ToolDamage, CatPrintsWhatLiesBeforeItAndSaysSoThoughTheLogGoesElsewhere) {
    FillAndDamage();
    for (int round = 0; round < 2; ++round) {
        const ToolRun run = Command("cat");
        EXPECT_EQ(run.exitStatus, kDamaged);
        EXPECT_EQ(run.out, "r1\n");
        EXPECT_EQ(run.err, "k9repl cat: " + Damage() + " and are not printed\n");
        ExpectNothingChanged();
        EXPECT_FALSE(Exists(Tail()));
        EXPECT_FALSE(Exists(StorageFile() + "-idx"));
        m_environment.push_back("K9SYS_LOG_FILE=" + File("library.log"));
    }
}

TEST_F(ToolDamage, AppendWritesNothingBehindIt) {
    FillAndDamage();
    for (const char* input : {"new\n", ""}) {
        ExpectFailure(Append(input),
                      "append: " + Damage() + "; nothing was appended: --accept-damage allows it",
                      kDamaged);
        ExpectNothingChanged();
    }
}

TEST_F(ToolDamage, AppendWritesBehindItWhenThatIsAcceptedAndItsTailIsNamedFromThenOn) {
    FillAndDamage();
    const ToolRun run = Append("new\n", {"--accept-damage"});
    EXPECT_EQ(run.exitStatus, 0) << run;
    EXPECT_EQ(run.err, "k9repl append: note: " + Damage() + "\n");
    EXPECT_EQ(Cat(), "r1\nnew\n");
    const ToolRun verify = Command("verify");
    EXPECT_EQ(verify.exitStatus, 0) << verify;
    ExpectPrinted(verify, "damaged tail         '" + Tail() + "' (232 bytes)\n");
    ExpectPrinted(Command("verify", {"--format", "json"}),
                  "\"damagedTailFile\":" + AsJson(Tail()) + ",\"damagedTailSize\":232");
    ExpectPrinted(Command("stat"),
                  "damaged tail         " + Tail() + "\ndamaged tail size    232\n");
    EXPECT_EQ(Stat("damagedTailFile"), AsJson(Tail()));
    EXPECT_EQ(Stat("damagedTailSize"), "232");
}

TEST_F(ToolDamage, StatTellsIt) {
    FillAndDamage();
    const ToolRun run = Command("stat");
    EXPECT_EQ(run.exitStatus, kDamaged);
    ExpectPrinted(run,
                  "damage at offset     1114\n"
                  "last good revision   1\n"
                  "revisions beyond     3 to 5\n");
    EXPECT_EQ(run.out.find("damaged tail"), std::string::npos);
    EXPECT_EQ(run.err, "k9repl stat: " + Damage() + "\n");
    EXPECT_FALSE(Exists(Tail()));
}

TEST_F(ToolDamage, StatFindsWhatAnIndexPassesOver) {
    // Two records a block, and only the last blocks are loaded.
    const std::string settings = "block_size=262;cache_type=Last1;index_hint=1";
    const std::string conn = Conn(std::string(kEachCommit) + ";" + settings);
    AppendEach(Lines(6, 100), std::string(kEachCommit) + ";" + settings);
    ASSERT_EQ(Run({"append", "--conn", conn}).exitStatus, 0);  // lists all blocks in the index
    DamageAt(1056 + 100 + 24 + 32);
    EXPECT_EQ(Run({"cat", "--from", "6", "--conn", Conn(settings)}).exitStatus, 0);
    const ToolRun run = Run({"stat", "--conn", Conn(settings)});
    EXPECT_EQ(run.exitStatus, kDamaged) << run;
    ExpectPrinted(run, "next revision        7\n");
    ExpectPrinted(run, "damage at offset     1212\n");
}

}  // namespace
}  // namespace k9erepl::test
