// Two copies of the library in one process: the second is loaded with a warning, works, and leaves
// the first one's mark alone.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "support/child_process.h"
#include "support/temp_folder.h"

namespace k9erepl::test {
namespace {

namespace fs = std::filesystem;

// As text: the end of a line is one character.
std::string TextOf(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

class SecondCopy : public ::testing::Test {
  protected:
    SecondCopy() { fs::copy_file(STORAGE_LIBRARY, m_copy); }

    // Runs the probe with the library and `second`.
    void Probe(const std::string& second) {
        ChildProcess probe({.arguments = {LOAD_PROBE, STORAGE_LIBRARY, second},
                            .outputPath = m_folder.File("steps"),
                            .errorPath = m_folder.File("warnings")});
        probe.CloseInput();
        EXPECT_EQ(probe.Wait(), ChildEnd()) << Steps();
    }
    std::string Steps() const { return TextOf(m_folder.File("steps")); }
    std::string Warnings() const { return TextOf(m_folder.File("warnings")); }

    TempFolder m_folder;
    const std::string m_copy =
        (fs::path(m_folder.Path()) / fs::path(STORAGE_LIBRARY).filename()).string();
};

TEST_F(SecondCopy, IsLoadedWithAWarningWorksAndLeavesTheMarkToTheFirst) {
    Probe(m_copy);
    EXPECT_EQ(Warnings(), "K9eReplStorage: Module has already been loaded\n");
    EXPECT_EQ(Steps(),
              "before: not marked\n"
              "first loaded: marked\n"
              "second loaded: marked\n"
              "copies: two\n"
              "first: works\n"
              "second: works\n"
              "second unloaded: marked\n"
              "first unloaded: not marked\n");
}

TEST_F(SecondCopy, TheSameCopyTwiceGetsNoWarning) {
    Probe(STORAGE_LIBRARY);
    EXPECT_EQ(Warnings(), "");
    EXPECT_NE(Steps().find("copies: one\n"), std::string::npos);
}

}  // namespace
}  // namespace k9erepl::test
