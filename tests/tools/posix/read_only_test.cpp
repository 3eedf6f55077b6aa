// Reading commands where nothing may be written.
#include <filesystem>
#include <string>

#include "tools/tool_fixture.h"

namespace k9erepl::test {

namespace {

namespace fs = std::filesystem;

class ToolReadOnly : public ToolTest {};

TEST_F(ToolReadOnly, AFileThatMayOnlyBeReadIsPrintedAndDescribed) {
    const std::string folder = File("folder");
    const std::string path = folder + "/data.edb";
    fs::create_directory(folder);
    const std::string conn = "file=" + path;
    ASSERT_EQ(Run({"append", "--create", "--conn", conn}, "one\ntwo\n").exitStatus, 0);
    fs::remove(path + "-idx");
    fs::permissions(path, fs::perms(0444));
    fs::permissions(folder, fs::perms(0555));
    fs::permissions(fs::path(path).parent_path().parent_path(), fs::perms(0755));
    m_obeysPermissions = true;
    EXPECT_EQ(Run({"cat", "--conn", conn}).out, "one\ntwo\n");
    EXPECT_EQ(Run({"stat", "--conn", conn}).exitStatus, 0);
    EXPECT_EQ(Run({"verify", "--conn", conn}).exitStatus, 0);
    EXPECT_EQ(Run({"append", "--conn", conn}, "three\n").exitStatus, 1);
    fs::permissions(folder, fs::perms(0755));
    EXPECT_FALSE(Exists(path + "-idx"));
}

}  // namespace

}  // namespace k9erepl::test
