// Runs the tool and collects what it says.
#include "tools/tool_fixture.h"

#include <chrono>
#include <nlohmann/json.hpp>
#include <ostream>
#include <thread>

namespace k9erepl::test {

std::ostream& operator<<(std::ostream& out, const ToolRun& run) {
    return out << "exit status " << run.exitStatus << "\n--- out\n"
               << run.out << "--- err\n"
               << run.err;
}

std::string ToolTest::Conn(const std::string& more) const {
    std::string conn = "file=" + StorageFile();
    for (const std::string& setting : {more, std::string(WriterSetting())}) {
        conn += setting.empty() ? "" : ";" + setting;
    }
    return conn;
}

ChildOptions ToolTest::PipedOptions(Words arguments) const {
    arguments.insert(arguments.begin(), K9REPL_PROGRAM);
    return {.arguments = std::move(arguments),
            .environment = m_environment,
            .inputPath = {},
            .outputPath = m_folder.File("tool.out"),
            .errorPath = m_folder.File("tool.err"),
            .fileSizeMax = m_fileSizeMax,
            .obeysPermissions = m_obeysPermissions};
}

ToolRun ToolTest::Finish(ChildProcess& child) const {
    const ChildEnd end = child.Wait();
    EXPECT_EQ(end.signal, 0) << "the tool was ended by a signal";
    const std::string out = File("tool.out");
    return {end.exitStatus, Exists(out) ? ReadText(out) : "", ReadText(File("tool.err"))};
}

ToolRun ToolTest::Run(Words arguments, std::string_view input) {
    ChildOptions options = PipedOptions(std::move(arguments));
    options.inputPath = File("tool.in");
    WriteText(options.inputPath, std::string(input));
    if (!m_outputPath.empty()) {
        std::filesystem::remove(options.outputPath);
        options.outputPath = m_outputPath;
    }
    ChildProcess child(options);
    return Finish(child);
}

ToolRun ToolTest::Command(const std::string& command, const Words& more, std::string_view input) {
    Words arguments = {command, "--conn", Conn()};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return Run(std::move(arguments), input);
}

ToolRun ToolTest::Append(std::string_view input, Words more) {
    more.push_back("--create");
    return Command("append", more, input);
}

ToolRun ToolTest::Clear(const std::string& to, const std::string& mode,
                        const std::string& settings) {
    return Run({"clear", "--conn", Conn(settings), "--to", to, "--mode", mode});
}

std::string ToolTest::Cat(const Words& more) {
    const ToolRun run = Command("cat", more);
    EXPECT_EQ(run.exitStatus, 0) << run;
    EXPECT_EQ(run.err, "");
    return run.out;
}

std::string ToolTest::Stat(const std::string& key, const std::string& settings) {
    const ToolRun run = Run({"stat", "--conn", Conn(settings), "--format", "json"});
    EXPECT_EQ(run.exitStatus, 0) << run;
    return run.exitStatus == 0 ? nlohmann::json::parse(run.out).at(key).dump() : "";
}

void ToolTest::Fill() {
    std::filesystem::remove(StorageFile());
    std::filesystem::remove(Backup());
    ASSERT_EQ(Append(kEverything).exitStatus, 0);
    m_before = ReadBytes(StorageFile());
}

void ToolTest::ExpectReport(const ToolRun& run, const std::string& report) {
    EXPECT_EQ(run.exitStatus, 0) << run;
    EXPECT_EQ(run.out, report);
    EXPECT_EQ(run.err, "");
}

void ToolTest::ExpectFailure(const ToolRun& run, const std::string& sentence, int exitStatus) {
    EXPECT_EQ(run.exitStatus, exitStatus) << run;
    EXPECT_EQ(run.err, "k9repl " + sentence + "\n");
    EXPECT_EQ(run.out, "");
}

void ToolTest::ExpectPrinted(const ToolRun& run, const std::string& part) {
    EXPECT_NE(run.out.find(part), std::string::npos) << part << " is missing in " << run;
}

void ToolTest::ExpectNothingChanged() {
    EXPECT_EQ(ReadBytes(StorageFile()), m_before);
    EXPECT_FALSE(Exists(Backup()));
    EXPECT_FALSE(Exists(Temporary()));
}

std::string UpTo(const std::string& text, std::string_view end) {
    return text.substr(0, text.find(end));
}

std::string AsJson(const std::string& text) {
    return nlohmann::json(text).dump();
}

bool WaitUntilFileHolds(const std::string& path, std::string_view text) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (std::chrono::steady_clock::now() < deadline) {
        if (Exists(path) && ReadText(path).find(text) != std::string::npos) {
            return true;
        }
        std::this_thread::yield();
    }
    return false;
}

}  // namespace k9erepl::test
