// What the tests of the tool share: a folder, a storage in it, runs of the program and what it must
// say.
#ifndef K9EREPL_TESTS_TOOLS_TOOL_FIXTURE_H
#define K9EREPL_TESTS_TOOLS_TOOL_FIXTURE_H

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "support/child_process.h"
#include "support/file_bytes.h"
#include "support/temp_folder.h"
#include "support/writer_mode.h"

namespace k9erepl::test {

inline constexpr bool kOnWindows = std::filesystem::path::preferred_separator == '\\';
// The device that is empty and takes everything.
inline constexpr const char* kNullDevice = kOnWindows ? "NUL" : "/dev/null";

// How messages name these results.
inline constexpr const char* kSystemError =
    "(code 4, RC_SYSTEM_ERROR: a call to the operating system failed)";
inline constexpr const char* kInvalidArg =
    "(code 2, RC_INVALID_ARG: an argument, a setting or the file's signature is wrong)";

// Settings: each commit reaches the file at once; no file at all.
inline constexpr const char* kEachCommit = "flush_mode=PerTrans;flush_trans_num=1";
inline constexpr const char* kNoFile = "cache_type=AllInMem;flush_mode=NoFlush";

// What Fill stores, as cat prints it.
inline constexpr const char* kEverything = "r1\nr2\nr3\nr4\nr5\n";

using Words = std::vector<std::string>;

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
    std::string Conn(const std::string& more = {}) const;
    std::string File(const std::string& name) const { return m_folder.File(name); }
    std::string StorageFile() const { return File("data.edb"); }
    std::string Backup() const { return StorageFile() + ".backup"; }
    std::string Temporary() const { return StorageFile() + ".temporary"; }
    std::string Tail() const { return StorageFile() + ".damaged-tail"; }

    // Runs "k9repl ARGUMENTS" with `input` on its standard input.
    ToolRun Run(Words arguments, std::string_view input = {});
    // "COMMAND --conn Conn() ..." with `input`.
    ToolRun Command(const std::string& command, const Words& more = {},
                    std::string_view input = {});
    // "append --create --conn Conn() ..." with `input`.
    ToolRun Append(std::string_view input, Words more = {});
    // "clear --conn Conn(settings) --to TO --mode MODE".
    ToolRun Clear(const std::string& to, const std::string& mode, const std::string& settings = {});
    // "cat --conn Conn() ...", its output alone; fails the test when it fails.
    std::string Cat(const Words& more = {});
    // One value of "stat --conn Conn(settings) --format json", as JSON.
    std::string Stat(const std::string& key, const std::string& settings = {});
    // Makes a new storage with the revisions 1 to 5 and the data r1 to r5: 1218 bytes, one commit
    // block behind all of them. Its bytes are m_before.
    void Fill();

    // Starts "k9repl ARGUMENTS" with pipes; Finish waits for it and collects its output.
    ChildOptions PipedOptions(Words arguments) const;
    ToolRun Finish(ChildProcess& child) const;

    // Success with exactly this report and without a word beside it.
    static void ExpectReport(const ToolRun& run, const std::string& report);
    // Failure that says exactly "k9repl SENTENCE".
    static void ExpectFailure(const ToolRun& run, const std::string& sentence, int exitStatus = 1);
    static void ExpectPrinted(const ToolRun& run, const std::string& part);
    // The storage is as Fill left it, and no squeeze has left files beside it.
    void ExpectNothingChanged();

    std::string Missing() const {
        return "there is no storage file '" + StorageFile() + "'; append --create makes it " +
               kSystemError;
    }

    // For each run, as ChildOptions has it. The log's settings change what the tool tells: those of
    // the test's own environment must not.
    Words m_environment = {"K9SYS_LOG", "K9SYS_LOG_FILE"};
    u64 m_fileSizeMax = 0;            // for Run
    bool m_obeysPermissions = false;  // for Run: of files, though the test runs as root
    std::string m_outputPath;         // for Run: in place of the file that is read back
    std::vector<u8> m_before;         // the bytes that Fill has made

  private:
    TempFolder m_folder;
};

// `run.out` up to its first `end`.
std::string UpTo(const std::string& text, std::string_view end);

// `text` in quotes, as JSON has it.
std::string AsJson(const std::string& text);

// Waits, at most a minute, until the file at `path` is there and holds `text`; false when it never
// did.
bool WaitUntilFileHolds(const std::string& path, std::string_view text = {});

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_TOOLS_TOOL_FIXTURE_H
