// Two copies of the library in one process: the second is loaded with a warning and leaves the
// first one's mark alone.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <string>

namespace k9erepl::test {
namespace {

namespace fs = std::filesystem;

class SecondCopy : public ::testing::Test {
  protected:
    SecondCopy() {
        std::string folder = fs::temp_directory_path() / "k9erepl_copy_XXXXXX";
        EXPECT_NE(mkdtemp(folder.data()), nullptr);
        m_folder = folder;
        fs::copy_file(STORAGE_LIBRARY, Copy());
    }
    ~SecondCopy() override { fs::remove_all(m_folder); }

    fs::path Copy() const { return m_folder / "libK9eReplStorage.so"; }

    // What the probe prints on `stream`: 1 standard output, 2 standard error.
    std::string Probe(int stream, const std::string& first, const std::string& second) const {
        const std::string command = "'" + std::string(LOAD_PROBE) + "' '" + first + "' '" + second +
                                    (stream == 1 ? "' 2>/dev/null" : "' 2>&1 >/dev/null");
        std::FILE* const pipe = popen(command.c_str(), "r");
        EXPECT_NE(pipe, nullptr);
        std::string output;
        char piece[256];
        while (pipe != nullptr && std::fgets(piece, sizeof(piece), pipe) != nullptr) {
            output += piece;
        }
        EXPECT_EQ(pclose(pipe), 0) << output;
        return output;
    }

  private:
    fs::path m_folder;
};

}  // namespace

TEST_F(SecondCopy, IsLoadedWithAWarning) {
    EXPECT_EQ(Probe(2, STORAGE_LIBRARY, Copy()),
              "K9eReplStorage: Module has already been loaded\n");
}

TEST_F(SecondCopy, LeavesTheMarkToTheFirst) {
    EXPECT_EQ(Probe(1, STORAGE_LIBRARY, Copy()),
              "before: not marked\n"
              "first loaded: marked\n"
              "second loaded: marked\n"
              "second unloaded: marked\n"
              "first unloaded: not marked\n");
}

TEST_F(SecondCopy, TheSameCopyTwiceGetsNoWarning) {
    EXPECT_EQ(Probe(2, STORAGE_LIBRARY, STORAGE_LIBRARY), "");
}

}  // namespace k9erepl::test
