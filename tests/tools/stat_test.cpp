// What stat tells of a storage.
#include <filesystem>
#include <string>

#include "tools/tool_fixture.h"

namespace k9erepl::test {

namespace {

class ToolStat : public ToolTest {};

TEST_F(ToolStat, TellsAnEmptyStorage) {
    ASSERT_EQ(Append("").exitStatus, 0);
    EXPECT_EQ(Run({"stat", "--conn", Conn()}).out, "storage file         " + StorageFile() + "\n" +
                                                       "index file           " + StorageFile() +
                                                       "-idx\n" +
                                                       "next revision        1\n"
                                                       "oldest revision      none\n"
                                                       "life number          0\n"
                                                       "clear mark           0\n"
                                                       "storage file size    1064\n"
                                                       "index file size      32\n"
                                                       "blocks in the index  0\n");
}

TEST_F(ToolStat, TellsRevisionsSizesAndBlocks) {
    // Each record of 100 + 24 bytes fills a block of its own.
    std::string lines;
    for (int i = 0; i < 5; ++i) {
        lines += std::string(100, 'x') + "\n";
    }
    const std::string settings = "block_size=138";
    ASSERT_EQ(Run({"append", "--create", "--conn", Conn(settings)}, lines).exitStatus, 0);
    // The load of a command that may write lists all blocks in the index.
    ASSERT_EQ(Run({"append", "--conn", Conn(settings)}).exitStatus, 0);
    EXPECT_EQ(Stat("nextRev", settings), "6");
    EXPECT_EQ(Stat("oldestRev", settings), "1");
    EXPECT_EQ(Stat("fileSize", settings), std::to_string(1056 + 5 * 124 + 32));
    EXPECT_EQ(Stat("blocks", settings), "5");
    EXPECT_EQ(Stat("indexSize", settings), std::to_string(32 + 5 * 16));
}

TEST_F(ToolStat, JsonIsOneObject) {
    ASSERT_EQ(Append("").exitStatus, 0);
    EXPECT_EQ(Run({"stat", "--conn", Conn(), "--format", "json"}).out,
              "{\"file\":" + AsJson(StorageFile()) +
                  ",\"indexFile\":" + AsJson(StorageFile() + "-idx") +
                  ",\"nextRev\":1,\"oldestRev\":null,\"lifeNumber\":0,\"clearMark\":0,"
                  "\"fileSize\":1064,\"indexSize\":32,\"blocks\":0}\n");
}

TEST_F(ToolStat, FindsTheIndexFileWhereTheSettingsPutIt) {
    const std::string conn = "file = " + StorageFile() + ", index_file=" + File("side.idx");
    ASSERT_EQ(Run({"append", "--create", "--conn", conn}, "x\n").exitStatus, 0);
    ASSERT_EQ(Run({"append", "--conn", conn}).exitStatus, 0);  // lists the block in the index
    EXPECT_NE(Run({"stat", "--conn", conn}).out.find("index file size      48\n"),
              std::string::npos);
    EXPECT_FALSE(Exists(StorageFile() + "-idx"));
}

TEST_F(ToolStat, LooksBesideAWriterAndWritesNothing) {
    ASSERT_EQ(Append("one\n").exitStatus, 0);
    std::filesystem::remove(StorageFile() + "-idx");
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
    const ToolRun run =
        Run({"stat", "--conn", "cache_type=AllInMem;flush_mode=NoFlush;file=:memory:"});
    EXPECT_EQ(run.exitStatus, 0) << run;
    EXPECT_NE(run.out.find("storage file size    none\n"), std::string::npos) << run;
}

}  // namespace

}  // namespace k9erepl::test
