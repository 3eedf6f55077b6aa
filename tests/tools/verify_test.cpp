// What verify says of sound, torn and damaged storage files, and that it changes none of them.
#include <cerrno>
#include <filesystem>
#include <nlohmann/json.hpp>
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

class ToolVerify : public ToolTest {
  protected:
    // Records r1 to r5, each in a flush of its own.
    void Fill() {
        ASSERT_EQ(Run({"append", "--create", "--per-trans", "1", "--conn",
                       Conn("flush_mode=PerTrans;flush_trans_num=1")},
                      "r1\nr2\nr3\nr4\nr5\n")
                      .exitStatus,
                  0);
        ASSERT_EQ(FileSize(StorageFile()), kFirstRun + 5 * kRunSize);
    }
    static i64 RunAt(i64 rev) { return kFirstRun + (rev - 1) * kRunSize; }
    void Damage(i64 rev) { PatchBytes(StorageFile(), RunAt(rev), std::vector<u8>{0x55}); }

    // Runs verify and expects that it has not touched the file and kept nothing of it.
    ToolRun Verify(const std::string& conn) {
        const std::vector<u8> before = ReadBytes(StorageFile());
        const auto time = std::filesystem::last_write_time(StorageFile());
        const ToolRun run = Run({"verify", "--conn", conn});
        EXPECT_EQ(ReadBytes(StorageFile()), before);
        EXPECT_EQ(std::filesystem::last_write_time(StorageFile()), time);
        EXPECT_FALSE(Exists(StorageFile() + ".damaged-tail"));
        return run;
    }
    ToolRun Verify() { return Verify("file=" + StorageFile()); }
    std::string Begin(const std::string& state, int lastRev, int records, int commitBlocks) const {
        return "storage file         " + StorageFile() + "\nstate                " + state +
               "\nlast good revision   " + std::to_string(lastRev) + "\nrecords              " +
               std::to_string(records) + "\ncommit blocks        " + std::to_string(commitBlocks) +
               "\n";
    }
    void ExpectFailure(const std::string& message) {
        const ToolRun run = Run({"verify", "--conn", "file=" + StorageFile()});
        EXPECT_EQ(run.exitStatus, 1);
        EXPECT_EQ(run.err,
                  "k9repl verify: the storage file '" + StorageFile() + "' " + message + "\n");
        EXPECT_EQ(run.out, "");
    }
};

TEST_F(ToolVerify, ASoundFileHasNothingBehindItsData) {
    Fill();
    const ToolRun run = Verify();
    EXPECT_EQ(run.exitStatus, 0) << run;
    EXPECT_EQ(run.out, Begin("sound", 5, 5, 6) + "end of the data      1346\n");
    EXPECT_EQ(run.err, "");
}

TEST_F(ToolVerify, ASoundFileMayGoOnWithZeros) {
    Fill();
    ResizeFile(StorageFile(), 3'000'000);
    EXPECT_EQ(Verify().exitStatus, 0);
}

TEST_F(ToolVerify, ANewStorageIsSound) {
    ASSERT_EQ(Append("").exitStatus, 0);
    EXPECT_EQ(Verify().out, Begin("sound", 0, 0, 1) + "end of the data      1056\n");
}

TEST_F(ToolVerify, ATornEndIsWhatNoLoadTakes) {
    Fill();
    ResizeFile(StorageFile(), RunAt(5) + 30);
    ResizeFile(StorageFile(), 2'000'000);
    const ToolRun run = Verify();
    EXPECT_EQ(run.exitStatus, kTornEnd) << run;
    EXPECT_EQ(run.out, Begin("torn end", 4, 4, 5) +
                           "end of the data      1288\n"
                           "broken at offset     1314\n"
                           "bytes abandoned      30\n");
}

TEST_F(ToolVerify, TheLastRunDamagedIsATornEndToo) {
    Fill();
    Damage(5);
    EXPECT_EQ(Verify().exitStatus, kTornEnd);
}

TEST_F(ToolVerify, DamageInTheMiddleTellsWhatLiesBeyond) {
    Fill();
    Damage(2);
    const ToolRun run = Verify();
    EXPECT_EQ(run.exitStatus, kDamaged) << run;
    EXPECT_EQ(run.out, Begin("damage in the middle", 1, 1, 2) +
                           "end of the data      1114\n"
                           "broken at offset     1114\n"
                           "bytes abandoned      225\n"
                           "revisions beyond     3 to 5\n");
}

TEST_F(ToolVerify, AgreesWithALoadAboutEveryDamagedByte) {
    Fill();
    const std::vector<u8> whole = ReadBytes(StorageFile());
    for (i64 at = RunAt(2); at < RunAt(3); at += 5) {
        std::vector<u8> bytes = whole;
        bytes[static_cast<std::size_t>(at)] ^= 0x40;
        WriteBytes(StorageFile(), bytes);
        const int exitStatus = Verify().exitStatus;
        std::filesystem::remove(StorageFile() + "-idx");
        EXPECT_EQ(Append("").exitStatus == kDamaged, exitStatus == kDamaged) << at;
        EXPECT_EQ(exitStatus == kDamaged, Exists(StorageFile() + ".damaged-tail")) << at;
        std::filesystem::remove(StorageFile() + ".damaged-tail");
    }
}

TEST_F(ToolVerify, JsonIsOneObject) {
    Fill();
    Damage(2);
    const ToolRun run = Run({"verify", "--format", "json", "--conn", "file=" + StorageFile()});
    EXPECT_EQ(run.exitStatus, kDamaged);
    EXPECT_EQ(run.out, "{\"file\":" + AsJson(StorageFile()) +
                           ",\"state\":\"damaged\",\"fileSize\":1346,\"commitBlocks\":2,"
                           "\"records\":1,\"lastRev\":1,\"clearRev\":0,\"dataEnd\":1114,"
                           "\"stopOffset\":1114,\"abandonedBytes\":225,\"beyondFrom\":3,"
                           "\"beyondTo\":5}\n");
}

TEST_F(ToolVerify, NeedsNoRightToWrite) {
    Fill();
    std::filesystem::permissions(StorageFile(), std::filesystem::perms::owner_read);
    m_obeysPermissions = true;
    EXPECT_EQ(Run({"verify", "--conn", "file=" + StorageFile()}).exitStatus, 0);
}

TEST_F(ToolVerify, RefusesWhatIsNoStorage) {
    WriteText(StorageFile(), "short");
    ExpectFailure("is no storage: it has no header");
    WriteText(StorageFile(), std::string(2000, 'x'));
    ExpectFailure("is no storage: it has another signature");
    ASSERT_EQ(Run({"truncate", "--yes", "--conn", Conn()}).exitStatus, 1);
}

TEST_F(ToolVerify, AFileMayEndWithItsFirstCommitBlock) {
    ASSERT_EQ(Append("").exitStatus, 0);
    ResizeFile(StorageFile(), kFirstRun);
    EXPECT_EQ(Verify().out, Begin("sound", 0, 0, 1) + "end of the data      1056\n");
    EXPECT_EQ(Cat(), "");
    ResizeFile(StorageFile(), kFirstRun - 1);
    ExpectFailure("cannot be loaded: it has no first commit block");
}

TEST_F(ToolVerify, RefusesWhatCannotBeLoaded) {
    Fill();
    PatchBytes(StorageFile(), 1024, std::vector<u8>{0x55});
    ExpectFailure("cannot be loaded: it has no first commit block");
    PatchBytes(StorageFile(), 8, std::vector<u8>{4});
    ExpectFailure("is of another version");
}

TEST_F(ToolVerify, NamesAMissingFile) {
    const ToolRun run = Run({"verify", "--conn", "file=" + StorageFile()});
    EXPECT_EQ(run.exitStatus, 1);
    const std::string cause = std::generic_category().message(ENOENT);
    EXPECT_EQ(run.err, "k9repl verify: cannot read the storage file '" + StorageFile() +
                           "': " + cause + " (system error 2)\n");
    for (const char* conn : {"file=:memory:", "file=:Memory:"}) {
        EXPECT_EQ(Run({"verify", "--conn", conn}).err,
                  "k9repl verify: there is no storage file to verify: the connection string names "
                  "none\n");
    }
}

TEST_F(ToolVerify, StatNamesADamagedTail) {
    Fill();
    EXPECT_EQ(Run({"stat", "--conn", Conn()}).out.find("damaged tail"), std::string::npos);
    WriteText(StorageFile() + ".damaged-tail", "bytes");
    const ToolRun run = Run({"stat", "--conn", Conn()});
    EXPECT_NE(run.out.find("damaged tail         " + StorageFile() +
                           ".damaged-tail\ndamaged tail size    5\n"),
              std::string::npos)
        << run;
    EXPECT_EQ(Stat("damagedTailSize"), "5");
}

}  // namespace

}  // namespace k9erepl::test
