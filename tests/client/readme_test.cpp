// The README shows the examples as they are.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

namespace k9erepl::test {

namespace {

std::string FileText(const std::string& path) {
    std::ifstream file(K9EREPL_REPOSITORY "/" + path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

class Readme : public ::testing::TestWithParam<const char*> {};

// Without the comment at the beginning of the example, which is for readers of the file.
TEST_P(Readme, ShowsTheExampleAsItIs) {
    const std::string example = FileText(GetParam());
    const std::size_t begin = example.find("#include");
    ASSERT_NE(begin, std::string::npos);
    EXPECT_NE(FileText("README.md").find(example.substr(begin)), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Examples, Readme,
                         ::testing::Values("examples/first_storage.c",
                                           "examples/first_storage.cpp"));

}  // namespace

}  // namespace k9erepl::test
