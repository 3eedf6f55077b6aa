// What append puts into a storage comes back from cat, in every format; and the first program of
// the README builds, runs and prints what the README says.
#include <filesystem>
#include <string>

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

class ToolRoundTrip : public ToolTest {
  protected:
    // Appends `input` and expects that cat prints `output`.
    void Expect(std::string_view input, const std::string& output, const Words& append = {},
                const Words& cat = {}) {
        const ToolRun run = Append(input, append);
        EXPECT_EQ(run.exitStatus, 0) << run;
        EXPECT_EQ(Cat(cat), output);
    }
    void ExpectSummary(std::string_view input, const std::string& summary) {
        const ToolRun run = Append(input);
        EXPECT_EQ(run.exitStatus, 0) << run;
        EXPECT_EQ(UpTo(run.out, " in "), summary);
        EXPECT_EQ(run.err, "");
    }

    const Words m_prefixed = {"--format", "length-prefixed"};
    const Words m_json = {"--format", "json"};
};

TEST_F(ToolRoundTrip, LinesComeBackAsTheyWereAndLaterRunsContinueTheRevisions) {
    ExpectSummary("", "appended 0 records, 0 bytes,");
    EXPECT_EQ(Cat(), "");
    ExpectSummary("one\ntwo\nthree\n", "appended 3 records, 11 bytes, revisions 1 to 3,");
    ExpectSummary("4\n", "appended 1 record, 1 bytes, revisions 4 to 4,");
    EXPECT_EQ(Cat(), "one\ntwo\nthree\n4\n");
}

TEST_F(ToolRoundTrip, EveryByteOfALineCountsAndAnIncompleteLastOneIsARecord) {
    Expect("one\r\n\x1A\nthree", "one\r\n\x1A\nthree\n");
    EXPECT_EQ(Stat("nextRev"), "4");
}

TEST_F(ToolRoundTrip, EmptyLinesAreRecordsWithoutData) {
    Expect("\n\nx\n\n", Prefixed("") + Prefixed("") + Prefixed("x") + Prefixed(""), {}, m_prefixed);
}

TEST_F(ToolRoundTrip, FilesAndTheNullDeviceAreReadLikeStandardInput) {
    WriteText(File("lines.txt"), "from\na file\n");
    Expect("", "from\na file\n", {File("lines.txt")});
    Expect("", "from\na file\n", {kNullDevice});
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
    EXPECT_EQ(Cat(m_prefixed), records);
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
    Expect(input, input, {"--length-prefixed"}, m_prefixed);
}

TEST_F(ToolRoundTrip, RawPutsNothingBetweenRecords) {
    Expect("one\n\ntwo\n", "onetwo", {}, {"--format", "raw"});
}

TEST_F(ToolRoundTrip, JsonIsOneObjectALineAndKeepsValidUtf8OfEverySize) {
    const std::string text = "a\xC2\x80\xE0\xA0\x80\xED\x9F\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF";
    Expect("say \"hi\"\t\n" + text + "\n",
           "{\"rev\":1,\"userWord\":0,\"size\":9,\"data\":\"say \\\"hi\\\"\\t\"}\n"
           "{\"rev\":2,\"userWord\":0,\"size\":17,\"data\":\"" +
               text + "\"}\n",
           {}, m_json);
}

TEST_F(ToolRoundTrip, JsonEscapesTheCharactersThatAStringCannotHold) {
    std::string every;
    for (int c = 0; c <= 0x7F; ++c) {
        every += static_cast<char>(c);
    }
    Expect(Prefixed(every),
           "{\"rev\":1,\"userWord\":0,\"size\":128,\"data\":" + AsJson(every) + "}\n",
           {"--length-prefixed"}, m_json);
}

TEST_F(ToolRoundTrip, JsonEncodesWhatIsNoUtf8) {
    // A lone continuation, an overlong slash, a surrogate, beyond U+10FFFF, a cut-off character.
    const std::string texts[][2] = {{"\x80", "gA=="},
                                    {"\xC0\xAF", "wK8="},
                                    {"\xED\xA0\x80", "7aCA"},
                                    {"\xF4\x90\x80\x80", "9JCAgA=="},
                                    {"\xE2\x82", "4oI="}};
    std::string input;
    std::string expected;
    int rev = 0;
    for (const auto& [invalid, encoded] : texts) {
        input += invalid + "\n";
        expected += "{\"rev\":" + std::to_string(++rev) +
                    ",\"userWord\":0,\"size\":" + std::to_string(invalid.size()) +
                    ",\"base64\":\"" + encoded + "\"}\n";
    }
    Expect(input, expected, {}, m_json);
}

TEST_F(ToolRoundTrip, FromAndToChooseRevisionsInclusively) {
    EXPECT_EQ(Append("1\n2\n3\n4\n5\n").exitStatus, 0);
    EXPECT_EQ(Cat({"--from", "2", "--to", "4"}), "2\n3\n4\n");
    EXPECT_EQ(Cat({"--from", "4"}), "4\n5\n");
    EXPECT_EQ(Cat({"--to", "1"}), "1\n");
    EXPECT_EQ(Cat({"--from", "6"}), "");
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
    std::string expected;
    for (const std::string settings :
         {"flush_mode=PerTrans;flush_trans_num=1000000", "flush_mode=PerTrans;flush_trans_num=-1",
          "flush_mode=PerData;flush_data_size=1000000000"}) {
        const std::string conn = Conn(settings + ";flush_timeout=3600000");
        const ToolRun run = Run({"append", "--create", "--conn", conn}, "a\nb\n");
        EXPECT_EQ(run.exitStatus, 0) << run;
        expected += "a\nb\n";
        EXPECT_EQ(Cat(), expected);
    }
}

TEST_F(ToolRoundTrip, AStorageIsReadWithoutBeingWritten) {
    Fill();
    EXPECT_EQ(Run({"cat", "--conn", Conn(kNoFile)}).out, kEverything);
    ExpectNothingChanged();
}

class FirstStorage : public ToolTest {
  protected:
    // Runs the example; its end of a line is one character.
    ToolRun RunExample() {
        ChildOptions options = PipedOptions({});
        options.arguments = {FIRST_STORAGE_PROGRAM, "file=" + StorageFile()};
        ChildProcess child(options);
        ToolRun run = Finish(child);
        std::erase(run.out, '\r');
        std::erase(run.err, '\r');
        return run;
    }
};

TEST_F(FirstStorage, PrintsWhatItAppendsAndFindsItsRecordsAgain) {
    const std::string records = "1: hello\n2: replicated world\n";
    ExpectReport(RunExample(), records);
    ExpectReport(RunExample(), records + "3: hello\n4: replicated world\n");
}

TEST_F(FirstStorage, IsTheProgramOfTheReadme) {
    const std::string program = ReadText(SOURCE_FOLDER "/examples/first_storage.c");
    EXPECT_NE(ReadText(SOURCE_FOLDER "/README.md").find("```c\n" + program + "```\n"),
              std::string::npos);
}

TEST_F(FirstStorage, TellsAFailure) {
    WriteText(StorageFile(), "no storage");
    const ToolRun run = RunExample();
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_TRUE(run.err.ends_with("the storage failed with code 4\n")) << run;
}

}  // namespace
}  // namespace k9erepl::test
