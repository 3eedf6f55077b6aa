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

ChildOptions ToolTest::PipedOptions(std::vector<std::string> arguments) const {
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

ToolRun ToolTest::Run(std::vector<std::string> arguments, std::string_view input) {
    ChildOptions options = PipedOptions(std::move(arguments));
    options.inputPath = File("tool.in");
    WriteText(options.inputPath, std::string(input));
    if (!m_outputPath.empty()) {
        options.outputPath = m_outputPath;
    }
    ChildProcess child(options);
    return Finish(child);
}

ToolRun ToolTest::Append(std::string_view input, std::vector<std::string> more) {
    std::vector<std::string> arguments = {"append", "--create", "--conn", Conn()};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return Run(std::move(arguments), input);
}

std::string ToolTest::Cat(std::vector<std::string> more) {
    std::vector<std::string> arguments = {"cat", "--conn", Conn()};
    arguments.insert(arguments.end(), more.begin(), more.end());
    const ToolRun run = Run(std::move(arguments));
    EXPECT_EQ(run.exitStatus, 0) << run;
    EXPECT_EQ(run.err, "");
    return run.out;
}

std::string ToolTest::Stat(const std::string& key, const std::string& settings) {
    const ToolRun run = Run({"stat", "--conn", Conn(settings), "--format", "json"});
    EXPECT_EQ(run.exitStatus, 0) << run;
    return run.exitStatus == 0 ? nlohmann::json::parse(run.out).at(key).dump() : "";
}

std::string AsJson(const std::string& text) {
    return nlohmann::json(text).dump();
}

namespace {

template <typename Condition>
bool WaitUntil(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) {
            return true;
        }
        std::this_thread::yield();
    }
    return false;
}

}  // namespace

bool WaitUntilExists(const std::string& path) {
    return WaitUntil([&] { return Exists(path); });
}

bool WaitUntilFileHolds(const std::string& path, std::string_view text) {
    return WaitUntil(
        [&] { return Exists(path) && ReadText(path).find(text) != std::string::npos; });
}

}  // namespace k9erepl::test
