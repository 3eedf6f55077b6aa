// Runs programs with an environment of their own, k9sys_log_child above all, and reads what they
// wrote. Used by the tests of what a process decides once: the environment, and which system
// library it loads.
#ifndef K9EREPL_TESTS_K9SYS_CHILD_FIXTURE_H
#define K9EREPL_TESTS_K9SYS_CHILD_FIXTURE_H

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "support/child_process.h"
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

class ChildTest : public ::testing::Test {
  protected:
    // Runs k9sys_log_child in `mode` with NAME=VALUE items, which it takes over itself, so that
    // they count for the log; false when it does not end well.
    bool Run(const std::string& mode, const Lines& items) {
        Lines arguments = {K9SYS_LOG_CHILD, mode};
        arguments.insert(arguments.end(), items.begin(), items.end());
        return RunProgram(arguments);
    }

    // Runs a program, with what it says on standard error kept.
    bool RunProgram(const Lines& arguments) {
        ChildProcess child(
            {.arguments = arguments, .environment = m_environment, .errorPath = m_standardError});
        return child.Wait() == ChildEnd{};
    }

    // The lines of a file, without the time at their beginning.
    static Lines LinesOf(const std::string& path) {
        Lines lines;
        std::istringstream file(ReadText(path));
        for (std::string line; std::getline(file, line);) {
            std::erase(line, '\r');  // where the C library ends lines of text so
            const bool hasTime = Shape(line.substr(0, kTimeShape.size())) == kTimeShape;
            lines.push_back(hasTime ? line.substr(kTimeShape.size()) : line);
        }
        return lines;
    }

    Lines m_environment;  // what a program that is run has in place of the test's own
    const TempFolder m_folder;
    const std::string m_standardError = m_folder.File("stderr");
    const std::string m_logFile = m_folder.File("log");
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_K9SYS_CHILD_FIXTURE_H
