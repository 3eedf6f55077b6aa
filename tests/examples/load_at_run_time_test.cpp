// A program that loads the library while it runs, and is not linked against it.
#include <gtest/gtest.h>

#include <string>

#include "examples/example_run.h"

namespace k9erepl::test {

namespace {

class LoadAtRunTime : public ::testing::Test {
  protected:
    ExampleRun Run(const std::string& library) {
        return RunExample(m_folder,
                          {LOAD_AT_RUN_TIME_PROGRAM, library, "file=" + m_folder.File("data.edb")});
    }

    TempFolder m_folder;
};

TEST_F(LoadAtRunTime, AppendsARecordWithEachRun) {
    const ExampleRun first = Run(STORAGE_LIBRARY);
    EXPECT_EQ(first.exitStatus, 0) << first.err;
    EXPECT_EQ(first.out, "records: 1\n");
    EXPECT_EQ(Run(STORAGE_LIBRARY).out, "records: 2\n");
}

TEST_F(LoadAtRunTime, TellsThatThereIsNoLibrary) {
    const ExampleRun run = Run(m_folder.File("none"));
    EXPECT_EQ(run.exitStatus, 1);
    EXPECT_EQ(run.err, "no library: load_at_run_time PATH-OF-THE-LIBRARY [CONNECTION-STRING]\n");
}

}  // namespace

}  // namespace k9erepl::test
