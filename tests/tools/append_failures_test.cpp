// Each failure of append: one sentence, a status that is not 0, and what came before is stored.
#include <string>

#include "tools/append_failure_fixture.h"
#include "tools/system_differences.h"

namespace k9erepl::test {

namespace {

constexpr const char* kInvalidArg =
    "(code 2, RC_INVALID_ARG: an argument, a setting or the file's signature is wrong)";

TEST_F(ToolAppendFailure, AMissingStorageIsNamedAndCreateOffered) {
    ExpectFailure(Run({"append", "--conn", Conn()}, "x\n"),
                  "there is no storage file '" + StorageFile() + "'; append --create makes it " +
                      kSystemError);
    EXPECT_FALSE(Exists(StorageFile()));
}

TEST_F(ToolAppendFailure, AFileThatIsNoStorageIsRefused) {
    WriteText(StorageFile(), std::string(2000, 'x'));
    ExpectFailure(Append("x\n"), "cannot open the storage '" + StorageFile() +
                                     "': Wrong file signature, file path " + StorageFile() + " " +
                                     kInvalidArg);
}

TEST_F(ToolAppendFailure, ARefusedSettingIsNamed) {
    ExpectFailure(Run({"append", "--create", "--conn", Conn("block_size=137")}, "x\n"),
                  "cannot open the storage '" + StorageFile() +
                      "': Wrong block_size value 137, minimum block_size value is 138 " +
                      kInvalidArg);
}

TEST_F(ToolAppendFailure, AConnectionStringWithoutAFileIsRefused) {
    ExpectFailure(Run({"append", "--create", "--conn", "block_size=1000"}, "x\n"),
                  std::string("cannot create the storage: Failed to get file parameter value ") +
                      kInvalidArg);
}

TEST_F(ToolAppendFailure, AStorageInMemoryOnlyIsRefused) {
    ExpectFailure(
        Run({"append", "--conn", "cache_type=AllInMem;flush_mode=NoFlush;file=:memory:"}, "x\n"),
        "nothing appended to the storage ':memory:' would be kept: flush_mode=NoFlush "
        "writes no file");
}

TEST_F(ToolAppendFailure, AMissingInputIsNamedAndNothingCreated) {
    ExpectFailure(Append("", {File("missing.txt")}),
                  "cannot open the input '" + File("missing.txt") + "': " + InWords(2));
    EXPECT_FALSE(Exists(StorageFile()));
}

TEST_F(ToolAppendFailure, AFolderAsInputIsRefused) {
    ExpectFailure(Append("", {"/"}), FolderAsInputFailure("/"));
}

TEST_F(ToolAppendFailure, ALineAsLongAsABlockHoldsIsARecord) {
    const std::string line(176, 'x');
    const std::string conn = Conn("block_size=200");
    EXPECT_EQ(Run({"append", "--create", "--conn", conn}, line).exitStatus, 0);
    EXPECT_EQ(Cat(), line + "\n");
}

TEST_F(ToolAppendFailure, ALongerLineIsNamedAndWhatCameBeforeIsStored) {
    const std::string conn = Conn("block_size=200");
    const std::string input = "one\ntwo\n" + std::string(177, 'x') + "\nfour\n";
    ExpectFailure(Run({"append", "--create", "--conn", conn}, input),
                  "line 3 of standard input is longer than 176 bytes, the most that a record can "
                  "have with block_size=200; give a block_size of the record's bytes and 24 more, "
                  "at most 10485760; safely stored up to revision 2");
    EXPECT_EQ(Cat(), "one\ntwo\n");
}

TEST_F(ToolAppendFailure, ALineWithoutEndIsRefusedBeforeItIsRead) {
    const std::string conn = Conn("block_size=200");
    ChildProcess child(PipedOptions({"append", "--create", "--conn", conn}));
    child.Write(std::string(1000, 'x'));  // and the input stays open
    ExpectFailure(Finish(child),
                  "line 1 of standard input is longer than 176 bytes, the most that a record can "
                  "have with block_size=200; give a block_size of the record's bytes and 24 more, "
                  "at most 10485760; nothing is stored");
}

TEST_F(ToolAppendFailure, ALineBeyondTheLargestRecordOfAFileIsRefused) {
    const std::string conn = Conn("block_size=20000000");
    std::string fits;
    fits.resize(10485736, 'x');
    EXPECT_EQ(Run({"append", "--create", "--conn", conn}, fits).exitStatus, 0);
    ExpectFailure(Run({"append", "--conn", conn}, fits + "x"),
                  "line 1 of standard input is longer than 10485736 bytes, the most that a record "
                  "of a storage file can have, whatever its block_size; cut it into smaller "
                  "records; safely stored up to revision 1");
}

TEST_F(ToolAppendFailure, AHostileLengthIsRefused) {
    const std::string input("\x01\0\0\0a\xFF\xFF\xFF\xFF", 9);
    ExpectFailure(Append(input, {"--length-prefixed"}),
                  "record 2 of standard input, at byte 5, claims 4294967295 bytes, more than "
                  "1048648, the most that a record can have with block_size=1048672, the default; "
                  "give a block_size of the record's bytes and 24 more, at most 10485760; safely "
                  "stored up to revision 1");
    EXPECT_EQ(Cat(), "a\n");
}

TEST_F(ToolAppendFailure, ACutOffRecordIsAnErrorAndWhatCameBeforeIsStored) {
    const std::string input("\x01\0\0\0a\x05\0\0\0bcd", 12);
    ExpectFailure(Append(input, {"--length-prefixed"}),
                  "record 2 of standard input, at byte 5, is cut off: the input ends with 3 of its "
                  "5 bytes; safely stored up to revision 1");
    EXPECT_EQ(Cat(), "a\n");
}

TEST_F(ToolAppendFailure, ACutOffLengthIsAnError) {
    ExpectFailure(Append(std::string("\x01\0\0", 3), {"--length-prefixed"}),
                  "record 1 of standard input, at byte 0, is cut off: the input ends with 3 of the "
                  "4 bytes of its length; nothing is stored");
}

}  // namespace

}  // namespace k9erepl::test
