// The examples that load the library while they run: a program that is not linked against it, and
// the script for the Python that the build has found.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "support/child_process.h"
#include "support/file_bytes.h"
#include "support/temp_folder.h"

namespace k9erepl::test {
namespace {

class Example : public ::testing::Test {
  protected:
    // Runs the program of `arguments`, on the test's storage, and `more`.
    void Run(std::vector<std::string> arguments, const std::vector<std::string>& more = {}) {
        arguments.push_back("file=" + m_folder.File("data.edb"));
        arguments.insert(arguments.end(), more.begin(), more.end());
        ChildProcess child({.arguments = std::move(arguments),
                            .environment = {"K9SYS_LOG", "K9SYS_LOG_FILE"},
                            .outputPath = m_folder.File("out"),
                            .errorPath = m_folder.File("err")});
        child.CloseInput();
        m_exitStatus = child.Wait().exitStatus;
        m_out = ReadText(m_folder.File("out"));
        m_err = ReadText(m_folder.File("err"));
        std::erase(m_out, '\r');  // where the C library ends lines of text so
        std::erase(m_err, '\r');
    }

    TempFolder m_folder;
    int m_exitStatus = 0;
    std::string m_out;
    std::string m_err;
};

using LoadAtRunTime = Example;

TEST_F(LoadAtRunTime, AppendsARecordWithEachRun) {
    for (const char* records : {"records: 1\n", "records: 2\n"}) {
        Run({LOAD_AT_RUN_TIME_PROGRAM, STORAGE_LIBRARY});
        EXPECT_EQ(m_exitStatus, 0) << m_err;
        EXPECT_EQ(m_out, records);
    }
}

TEST_F(LoadAtRunTime, TellsThatThereIsNoLibrary) {
    Run({LOAD_AT_RUN_TIME_PROGRAM, m_folder.File("none")});
    EXPECT_EQ(m_exitStatus, 1);
    EXPECT_EQ(m_err, "no library: load_at_run_time PATH-OF-THE-LIBRARY [CONNECTION-STRING]\n");
}

class ReadStorage : public Example {
  protected:
    void SetUp() override {
        if (m_script.front().empty()) {
            GTEST_SKIP() << "no Python here that could load the library";
        }
    }

    const std::vector<std::string> m_script{PYTHON_PROGRAM, READ_STORAGE_SCRIPT, STORAGE_LIBRARY};
};

TEST_F(ReadStorage, PrintsWhatItAppendsAndFindsItAgain) {
    Run(m_script, {"hello", ""});
    EXPECT_EQ(m_exitStatus, 0) << m_err;
    EXPECT_EQ(m_out, "1: hello\n2: \n");
    Run(m_script, {"replicated world"});
    EXPECT_EQ(m_out, "1: hello\n2: \n3: replicated world\n");
}

TEST_F(ReadStorage, TellsAFailure) {
    WriteText(m_folder.File("data.edb"), "no storage");
    Run(m_script);
    EXPECT_EQ(m_exitStatus, 1);
    EXPECT_NE(m_err.find("K9eReplStorageOpen failed with code 4"), std::string::npos) << m_err;
}

}  // namespace
}  // namespace k9erepl::test
