// The library from Python: the script of the examples, with the Python that the build has found.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "examples/example_run.h"

namespace k9erepl::test {

namespace {

class ReadStorage : public ::testing::Test {
  protected:
    void SetUp() override {
        if (std::string(PYTHON_PROGRAM).empty()) {
            GTEST_SKIP() << "no Python here that could load the library";
        }
    }

    ExampleRun Run(const std::vector<std::string>& texts) {
        std::vector<std::string> arguments = {PYTHON_PROGRAM, READ_STORAGE_SCRIPT, STORAGE_LIBRARY,
                                              "file=" + m_folder.File("data.edb")};
        arguments.insert(arguments.end(), texts.begin(), texts.end());
        return RunExample(m_folder, arguments);
    }

    TempFolder m_folder;
};

TEST_F(ReadStorage, PrintsWhatItAppends) {
    const ExampleRun run = Run({"hello", "", "replicated world"});
    EXPECT_EQ(run.exitStatus, 0) << run.err;
    EXPECT_EQ(run.out, "1: hello\n2: \n3: replicated world\n");
}

TEST_F(ReadStorage, FindsItsRecordsAgain) {
    EXPECT_EQ(Run({"one"}).exitStatus, 0);
    EXPECT_EQ(Run({"two"}).out, "1: one\n2: two\n");
}

TEST_F(ReadStorage, TellsAFailure) {
    WriteText(m_folder.File("data.edb"), "no storage");
    const ExampleRun run = Run({});
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_NE(run.err.find("K9eReplStorageOpen failed with code 4"), std::string::npos) << run.err;
}

}  // namespace

}  // namespace k9erepl::test
