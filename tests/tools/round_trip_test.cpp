// What append puts into a storage comes back from cat, in every format.
#include <filesystem>
#include <string>

#include "tools/system_differences.h"
#include "tools/tool_fixture.h"

namespace k9erepl::test {

namespace {

// A record of the length-prefixed format.
std::string Prefixed(const std::string& data) {
    std::string record;
    for (unsigned shift = 0; shift < 32; shift += 8) {
        record += static_cast<char>(data.size() >> shift & 0xFFU);
    }
    return record + data;
}

std::string AllBytes() {
    std::string bytes;
    for (int byte = 0; byte < 256; ++byte) {
        bytes += static_cast<char>(byte);
    }
    return bytes;
}

class ToolRoundTrip : public ToolTest {};

TEST_F(ToolRoundTrip, LinesComeBackAsTheyWere) {
    const ToolRun run = Append("one\ntwo\nthree\n");
    EXPECT_EQ(run.exitStatus, 0) << run;
    EXPECT_EQ(run.out.substr(0, run.out.find(" in ")),
              "appended 3 records, 11 bytes, revisions 1 to 3,");
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(Cat(), "one\ntwo\nthree\n");
}

TEST_F(ToolRoundTrip, AnIncompleteLastLineIsARecord) {
    EXPECT_EQ(Append("one\ntwo").exitStatus, 0);
    EXPECT_EQ(Cat(), "one\ntwo\n");
    EXPECT_EQ(Stat("nextRev"), "3");
}

TEST_F(ToolRoundTrip, EmptyLinesAreRecordsWithoutData) {
    EXPECT_EQ(Append("\n\nx\n\n").exitStatus, 0);
    EXPECT_EQ(Cat({"--format", "length-prefixed"}),
              Prefixed("") + Prefixed("") + Prefixed("x") + Prefixed(""));
}

TEST_F(ToolRoundTrip, AnEmptyInputAppendsNothing) {
    const ToolRun run = Append("");
    EXPECT_EQ(run.exitStatus, 0) << run;
    EXPECT_EQ(run.out.substr(0, run.out.find(" in ")), "appended 0 records, 0 bytes,");
    EXPECT_EQ(Cat(), "");
}

TEST_F(ToolRoundTrip, AFileIsReadLikeStandardInput) {
    WriteText(File("lines.txt"), "from\na file\n");
    EXPECT_EQ(Append("", {File("lines.txt")}).exitStatus, 0);
    EXPECT_EQ(Cat(), "from\na file\n");
}

TEST_F(ToolRoundTrip, APipeIsReadToItsEndUnchanged) {
    std::string records;
    for (int i = 0; i < 2000; ++i) {
        records += Prefixed(AllBytes() + "\r\n");
    }
    ChildProcess child(PipedOptions({"append", "--create", "--conn", Conn(), "--length-prefixed"}));
    child.Write(records);
    child.CloseInput();
    const ToolRun run = Finish(child);
    EXPECT_EQ(run.exitStatus, 0) << run;
    EXPECT_EQ(Cat({"--format", "length-prefixed"}), records);
}

TEST_F(ToolRoundTrip, TheNullDeviceIsAnEmptyInput) {
    EXPECT_EQ(Append("", {NullDevice()}).exitStatus, 0);
    EXPECT_EQ(Cat(), "");
}

TEST_F(ToolRoundTrip, CarriageReturnsAndEndsOfTextAreBytesOfTheirLines) {
    EXPECT_EQ(Append("one\r\n\x1A\nthree\n").exitStatus, 0);
    EXPECT_EQ(Cat(), "one\r\n\x1A\nthree\n");
}

TEST_F(ToolRoundTrip, PathsMayHaveEverySeparatorOfTheSystem) {
    EXPECT_EQ(Append("one\n").exitStatus, 0);
    const std::filesystem::path path = StorageFile();
    for (const std::string& spelled :
         {path.generic_string(), std::filesystem::path(path).make_preferred().string()}) {
        EXPECT_EQ(Run({"cat", "--conn", "file=" + spelled}).out, "one\n");
    }
}

TEST_F(ToolRoundTrip, BytesOfAnyValueComeBackByTheirLengths) {
    const std::string input = Prefixed(AllBytes()) + Prefixed("") + Prefixed("a\nb") +
                              Prefixed(std::string(100000, '\n'));
    EXPECT_EQ(Append(input, {"--length-prefixed"}).exitStatus, 0);
    EXPECT_EQ(Cat({"--format", "length-prefixed"}), input);
}

TEST_F(ToolRoundTrip, RawPutsNothingBetweenRecords) {
    EXPECT_EQ(Append("one\n\ntwo\n").exitStatus, 0);
    EXPECT_EQ(Cat({"--format", "raw"}), "onetwo");
}

TEST_F(ToolRoundTrip, JsonIsOneObjectALine) {
    EXPECT_EQ(Append("say \"hi\"\t\n\xC3\xA4\n").exitStatus, 0);
    EXPECT_EQ(Cat({"--format", "json"}),
              "{\"rev\":1,\"userWord\":0,\"size\":9,\"data\":\"say \\\"hi\\\"\\t\"}\n"
              "{\"rev\":2,\"userWord\":0,\"size\":2,\"data\":\"\xC3\xA4\"}\n");
}

TEST_F(ToolRoundTrip, JsonEscapesTheCharactersThatAStringCannotHold) {
    std::string every;
    for (char c = 0; c < 0x7F; ++c) {
        every += c;
    }
    ASSERT_EQ(Append(Prefixed(every + "\x7F"), {"--length-prefixed"}).exitStatus, 0);
    EXPECT_EQ(Cat({"--format", "json"}),
              "{\"rev\":1,\"userWord\":0,\"size\":128,\"data\":" + AsJson(every + "\x7F") + "}\n");
}

TEST_F(ToolRoundTrip, JsonEncodesWhatIsNoUtf8) {
    // A lone continuation, an overlong slash, a surrogate, beyond U+10FFFF, a cut-off character.
    const char* const invalid[] = {"\x80", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80",
                                   "\xE2\x82"};
    const char* const encoded[] = {"gA==", "wK8=", "7aCA", "9JCAgA==", "4oI="};
    for (const char* text : invalid) {
        ASSERT_EQ(Append(text).exitStatus, 0);
    }
    std::string expected;
    for (std::size_t i = 0; i < 5; ++i) {
        expected += "{\"rev\":" + std::to_string(i + 1) +
                    ",\"userWord\":0,\"size\":" + std::to_string(std::string(invalid[i]).size()) +
                    ",\"base64\":\"" + encoded[i] + "\"}\n";
    }
    EXPECT_EQ(Cat({"--format", "json"}), expected);
}

TEST_F(ToolRoundTrip, JsonKeepsValidUtf8OfEverySize) {
    const std::string text = "a\xC2\x80\xE0\xA0\x80\xED\x9F\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF";
    EXPECT_EQ(Append(text).exitStatus, 0);
    EXPECT_EQ(Cat({"--format", "json"}),
              "{\"rev\":1,\"userWord\":0,\"size\":17,\"data\":\"" + text + "\"}\n");
}

TEST_F(ToolRoundTrip, FromAndToChooseRevisionsInclusively) {
    EXPECT_EQ(Append("1\n2\n3\n4\n5\n").exitStatus, 0);
    EXPECT_EQ(Cat({"--from", "2", "--to", "4"}), "2\n3\n4\n");
    EXPECT_EQ(Cat({"--from", "4"}), "4\n5\n");
    EXPECT_EQ(Cat({"--to", "1"}), "1\n");
    EXPECT_EQ(Cat({"--from", "6"}), "");
}

TEST_F(ToolRoundTrip, ALaterRunContinuesTheRevisions) {
    EXPECT_EQ(Append("1\n2\n").exitStatus, 0);
    const ToolRun second = Append("3\n");
    EXPECT_EQ(second.out.substr(0, second.out.find(" in ")),
              "appended 1 record, 1 bytes, revisions 3 to 3,");
    EXPECT_EQ(Cat(), "1\n2\n3\n");
}

TEST_F(ToolRoundTrip, ManyBlocksComeBackFromDisk) {
    std::string lines;
    for (int i = 0; i < 20000; ++i) {
        lines += "record number " + std::to_string(i) + "\n";
    }
    const std::string conn = Conn("block_size=4096;cache_type=Last2;index_hint=3");
    EXPECT_EQ(Run({"append", "--create", "--conn", conn, "--per-trans", "7"}, lines).exitStatus, 0);
    EXPECT_EQ(Run({"cat", "--conn", conn}).out, lines);
}

TEST_F(ToolRoundTrip, EverythingIsStoredHoweverHighTheThresholds) {
    const char* const settings[] = {"flush_mode=PerTrans;flush_trans_num=1000000",
                                    "flush_mode=PerTrans;flush_trans_num=-1",
                                    "flush_mode=PerData;flush_data_size=1000000000"};
    std::string expected;
    for (const char* setting : settings) {
        const std::string mode = std::string(setting) + ";flush_timeout=3600000";
        const ToolRun run = Run({"append", "--create", "--conn", Conn(mode)}, "a\nb\n");
        EXPECT_EQ(run.exitStatus, 0) << run;
        expected += "a\nb\n";
        EXPECT_EQ(Cat(), expected);
    }
}

TEST_F(ToolRoundTrip, AStorageIsReadWithoutBeingWritten) {
    EXPECT_EQ(Append("one\ntwo\n").exitStatus, 0);
    const std::vector<u8> before = ReadBytes(StorageFile());
    const std::string conn = Conn("cache_type=AllInMem;flush_mode=NoFlush");
    EXPECT_EQ(Run({"cat", "--conn", conn}).out, "one\ntwo\n");
    EXPECT_EQ(ReadBytes(StorageFile()), before);
}

}  // namespace

}  // namespace k9erepl::test
