// Runs k9sys_log_child with an environment of its own and reads what it wrote. Used by the tests of
// what a process decides once: the environment, and which system library it loads.
#ifndef K9EREPL_TESTS_K9SYS_CHILD_PROCESS_H
#define K9EREPL_TESTS_K9SYS_CHILD_PROCESS_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "support/file_bytes.h"
#include "support/temp_folder.h"

namespace k9erepl::test {

using Lines = std::vector<std::string>;

// The time at the beginning of a line, with 0 for every digit.
inline constexpr std::string_view kTimeShape = "0000-00-00 00:00:00.000 ";

// `text` with 0 for every digit.
inline std::string Shape(std::string text) {
    for (char& c : text) {
        c = c >= '0' && c <= '9' ? '0' : c;
    }
    return text;
}

class ChildProcess : public ::testing::Test {
  protected:
    // Runs the child in `mode` with NAME=VALUE items; false when it does not end well. `before` is
    // what the shell sees before the program's name.
    bool Run(const std::string& mode, const Lines& environment, const std::string& before = "") {
        std::string command = before + "\"" + K9SYS_LOG_CHILD + "\" " + mode;
        for (const std::string& item : environment) {
            command += " \"" + item + "\"";
        }
        return RunCommand(command);
    }

    // Runs a command of the shell, with what it says on standard error kept.
    bool RunCommand(const std::string& command) {
        const std::string whole = command + " 2> \"" + m_standardError + "\"";
        return std::system(whole.c_str()) == 0;  // NOLINT(concurrency-mt-unsafe)
    }

    // The lines of a file, without the time at their beginning.
    static Lines LinesOf(const std::string& path) {
        Lines lines;
        std::istringstream file(ReadText(path));
        for (std::string line; std::getline(file, line);) {
            const bool hasTime = Shape(line.substr(0, kTimeShape.size())) == kTimeShape;
            lines.push_back(hasTime ? line.substr(kTimeShape.size()) : line);
        }
        return lines;
    }

    const TempFolder m_folder;
    const std::string m_standardError = m_folder.File("stderr");
    const std::string m_logFile = m_folder.File("log");
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_K9SYS_CHILD_PROCESS_H
