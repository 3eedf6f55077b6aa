// Inputs as this system has them.
#include <string>

#include "tools/append_failure_fixture.h"
#include "tools/system_errors.h"

namespace k9erepl::test {

namespace {

TEST_F(ToolAppendFailure, AFolderAsInputIsRefused) {
    constexpr int kAccessDenied = 5;
    ExpectFailure(Append("", {"\\"}), "cannot open the input '\\': " + InWords(kAccessDenied));
    EXPECT_FALSE(Exists(StorageFile()));
}

TEST_F(ToolAppendFailure, NulIsAnEmptyInputAndNoTerminal) {
    EXPECT_EQ(Append("", {"NUL"}).exitStatus, 0);
    EXPECT_EQ(Cat(), "");
    const ToolRun run = Run({"truncate", "--conn", Conn()});
    EXPECT_EQ(run.exitStatus, 2) << run;
}

TEST_F(ToolAppendFailure, CarriageReturnsAreBytesOfTheirLines) {
    EXPECT_EQ(Append("one\r\ntwo\n\x1A\n").exitStatus, 0);
    EXPECT_EQ(Cat(), "one\r\ntwo\n\x1A\n");
}

TEST_F(ToolAppendFailure, PathsMayHaveEitherSlash) {
    EXPECT_EQ(Append("one\n").exitStatus, 0);
    std::string path = StorageFile();
    for (char& c : path) {
        c = c == '/' ? '\\' : c;
    }
    EXPECT_EQ(Run({"cat", "--conn", "file=" + path}).out, "one\n");
    for (char& c : path) {
        c = c == '\\' ? '/' : c;
    }
    EXPECT_EQ(Run({"cat", "--conn", "file=" + path}).out, "one\n");
}

}  // namespace

}  // namespace k9erepl::test
