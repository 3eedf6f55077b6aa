// What the tests of the tool share: a folder, a storage in it, and runs of the program.
#ifndef K9EREPL_TESTS_TOOLS_TOOL_FIXTURE_H
#define K9EREPL_TESTS_TOOLS_TOOL_FIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "support/child_process.h"
#include "support/file_bytes.h"
#include "support/temp_folder.h"
#include "support/writer_mode.h"

namespace k9erepl::test {

// How a message names that result.
inline constexpr const char* kSystemError =
    "(code 4, RC_SYSTEM_ERROR: a call to the operating system failed)";

// The end of a run and everything that it printed.
struct ToolRun {
    int exitStatus = 0;
    std::string out;
    std::string err;
};

// For messages of failed expectations.
std::ostream& operator<<(std::ostream& out, const ToolRun& run);

class ToolTest : public ::testing::Test {
  protected:
    // The connection string of the test's storage, with `more` and the writer that
    // support/writer_mode.h says behind it.
    std::string Conn(const std::string& more = {}) const {
        std::string conn = "file=" + StorageFile();
        for (const std::string& setting : {more, std::string(WriterSetting())}) {
            conn += setting.empty() ? "" : ";" + setting;
        }
        return conn;
    }
    std::string StorageFile() const { return m_folder.File("data.edb"); }
    std::string File(const std::string& name) const { return m_folder.File(name); }

    // Runs "k9repl ARGUMENTS" with `input` on its standard input.
    ToolRun Run(std::vector<std::string> arguments, std::string_view input = {});
    // "append --create --conn Conn() ..." with `input`.
    ToolRun Append(std::string_view input, std::vector<std::string> more = {});
    // "cat --conn Conn() ...", its output alone; fails the test when it fails.
    std::string Cat(std::vector<std::string> more = {});
    // One value of "stat --conn Conn(settings) --format json", as JSON.
    std::string Stat(const std::string& key, const std::string& settings = {});

    // Starts "k9repl ARGUMENTS" with pipes; Finish waits for it and collects its output.
    ChildOptions PipedOptions(std::vector<std::string> arguments) const;
    ToolRun Finish(ChildProcess& child) const;

    // For each run, as ChildOptions has it. The log's settings change what the tool tells: those of
    // the test's own environment must not.
    std::vector<std::string> m_environment = {"K9SYS_LOG", "K9SYS_LOG_FILE"};
    u64 m_fileSizeMax = 0;            // for Run
    bool m_obeysPermissions = false;  // for Run: of files, though the test runs as root
    std::string m_outputPath;         // for Run: in place of the file that is read back

  private:
    TempFolder m_folder;
};

// `text` in quotes, as JSON has it.
std::string AsJson(const std::string& text);

// Waits, at most a minute, until there is a file at `path`; false when there never was.
bool WaitUntilExists(const std::string& path);

// Waits, at most a minute, until the file at `path` holds `text`; false when it never did.
bool WaitUntilFileHolds(const std::string& path, std::string_view text);

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_TOOLS_TOOL_FIXTURE_H
