// Paths that lead to one file, and those that would as soon as it is made.
#include "platform/one_file.h"

#include <filesystem>

#include "files_fixture.h"

namespace k9erepl::test {
namespace {

using platform::LeadToOneFile;

class OneFile : public FilesFixture {
  protected:
    bool Same(const std::string& one, const std::string& other) const {
        const bool same = LeadToOneFile(PathOf(one), PathOf(other));
        EXPECT_EQ(LeadToOneFile(PathOf(other), PathOf(one)), same);
        return same;
    }
};

TEST_F(OneFile, HasAsManyPathsAsThereAreWaysThroughFolders) {
    std::filesystem::create_directory(PathOf("folder"));
    for (const bool exists : {false, true}) {
        if (exists) {
            WriteText(PathOf("data"), "text");
        }
        for (const char* path :
             {"data", "./data", ".//.//data", "folder/../data", "folder/.././folder/../data"}) {
            EXPECT_TRUE(Same("data", path)) << path;
        }
        for (const char* path : {"other", "folder/data", "data2", "dat", "folder/../other"}) {
            EXPECT_FALSE(Same("data", path)) << path;
        }
    }
}

TEST_F(OneFile, MayLieInFoldersThatAreYetToBeMade) {
    for (const char* path : {"new/deep/data", "new//deep/./data", "new/other/../deep/data",
                             "other/../new/x/y/../../deep/data"}) {
        EXPECT_TRUE(Same("new/deep/data", path)) << path;
    }
    for (const char* path : {"new/data", "deep/data", "new/deep/data/data", "newdeep/data"}) {
        EXPECT_FALSE(Same("new/deep/data", path)) << path;
    }
}

TEST_F(OneFile, IsNotOneThatIsMissing) {
    WriteText(PathOf("data"), "text");
    EXPECT_FALSE(Same("data", "missing"));
}

TEST_F(OneFile, MayBeNamedFromTheCurrentFolder) {
    EXPECT_TRUE(LeadToOneFile("no-such-file", "./no-such-file"));
    EXPECT_TRUE(
        LeadToOneFile("no-such-file", (std::filesystem::current_path() / "no-such-file").string()));
    EXPECT_FALSE(LeadToOneFile("no-such-file", "../no-such-file"));
}

}  // namespace
}  // namespace k9erepl::test
