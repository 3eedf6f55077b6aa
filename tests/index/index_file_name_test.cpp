// Where the index file lies for a connection string.
#include "index/index_file_name.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>

namespace k9erepl::test {
namespace {

struct Named {
    const char* why;
    const char* connStr;
    const char* path;
};
std::ostream& operator<<(std::ostream& out, const Named& named) {
    return out << named.connStr;
}
constexpr Named kNames[] = {
    {"IsIndexFileAsItStands", "file=data.edb;index_file=/fast/other", "/fast/other"},
    {"IsIndexFileWithoutFile", "index_file=a.idx", "a.idx"},
    {"TakesAnEmptyIndexFileForAbsent", "index_file=;file=data.edb", "data.edb-idx"},
    {"AppendsToTheExtension", "file=data.edb", "data.edb-idx"},
    {"AppendsToTheLastExtension", "file=data.2026.repl", "data.2026.repl-idx"},
    {"AddsAnExtensionToANameWithoutDot", "file=data", "data.edb-idx"},
    {"FillsAnEmptyExtension", "file=data.", "data.edb-idx"},
    {"TakesALeadingDotForTheExtension", "file=dir/.data", "dir/.data-idx"},
    {"IgnoresADotInTheDirectory", "file=x.dir/data", "x.dir/data.edb-idx"},
    {"IgnoresADotInADirectoryOfWindows", "file=x.dir\\data", "x.dir\\data.edb-idx"},
    {"EndsTheDirectoryAtABackslash", "file=a/b.c\\data", "a/b.c\\data.edb-idx"},
    {"EndsTheDirectoryAtASlash", "file=a\\b.c/data", "a\\b.c/data.edb-idx"},
    {"EndsTheDirectoryAtTheLaterSeparator", "file=a.b/c\\data.edb", "a.b/c\\data.edb-idx"},
    {"IsEmptyForAStorageInMemory", "flush_mode=NoFlush;file=:memory:", ""},
    {"IsEmptyInMemoryInAnyCaseOfLetters", "file=:MEMORY:", ""},
    {"IsEmptyInMemoryWhateverIndexFileSays", "file=:Memory:;index_file=a.idx", ""},
    {"IsEmptyWithoutFile", "flush_mode=PerTrans", ""},
    {"IsEmptyWithoutSettings", "", ""},
};

class IndexFileNameTest : public ::testing::TestWithParam<Named> {};

TEST_P(IndexFileNameTest, Is) {
    EXPECT_EQ(IndexFileName(GetParam().connStr), GetParam().path);
}

INSTANTIATE_TEST_SUITE_P(IndexFileName, IndexFileNameTest, ::testing::ValuesIn(kNames),
                         [](const auto& named) { return std::string(named.param.why); });

}  // namespace
}  // namespace k9erepl::test
