// Where the index file lies for a connection string.
#include <gtest/gtest.h>

#include "index/index_file_name.h"

namespace k9erepl::test {
namespace {

TEST(IndexFileName, IsIndexFileAsItStands) {
    EXPECT_EQ(IndexFileName("file=data.edb;index_file=/fast/other"), "/fast/other");
}

TEST(IndexFileName, AppendsToTheExtension) {
    EXPECT_EQ(IndexFileName("file=data.edb"), "data.edb-idx");
    EXPECT_EQ(IndexFileName("file=data.2026.repl"), "data.2026.repl-idx");
}

TEST(IndexFileName, AddsAnExtensionToANameWithoutDot) {
    EXPECT_EQ(IndexFileName("file=data"), "data.edb-idx");
}

TEST(IndexFileName, FillsAnEmptyExtension) {
    EXPECT_EQ(IndexFileName("file=data."), "data.edb-idx");
}

TEST(IndexFileName, IgnoresADotInTheDirectory) {
    EXPECT_EQ(IndexFileName("file=x.dir/data"), "x.dir/data.edb-idx");
    EXPECT_EQ(IndexFileName("file=x.dir\\data"), "x.dir\\data.edb-idx");
}

TEST(IndexFileName, EndsTheDirectoryAtTheLaterOfBothSeparators) {
    EXPECT_EQ(IndexFileName("file=a/b.c\\data"), "a/b.c\\data.edb-idx");
    EXPECT_EQ(IndexFileName("file=a\\b.c/data"), "a\\b.c/data.edb-idx");
    EXPECT_EQ(IndexFileName("file=a.b/c\\data.edb"), "a.b/c\\data.edb-idx");
}

TEST(IndexFileName, TakesALeadingDotForTheExtension) {
    EXPECT_EQ(IndexFileName("file=dir/.data"), "dir/.data-idx");
}

TEST(IndexFileName, IsEmptyForAStorageInMemory) {
    EXPECT_EQ(IndexFileName("cache_type=AllInMem;flush_mode=NoFlush;file=:memory:"), "");
}

TEST(IndexFileName, IsEmptyForAStorageInMemoryThatNamesOneOrSpellsItOtherwise) {
    EXPECT_EQ(IndexFileName("file=:memory:;index_file=a.idx"), "");
    EXPECT_EQ(IndexFileName("file=:MEMORY:"), "");
    EXPECT_EQ(IndexFileName("file=:Memory:;index_file=a.idx"), "");
}

TEST(IndexFileName, IsIndexFileWithoutFile) {
    EXPECT_EQ(IndexFileName("index_file=a.idx"), "a.idx");
}

TEST(IndexFileName, IsEmptyWithoutFile) {
    EXPECT_EQ(IndexFileName("flush_mode=PerTrans"), "");
    EXPECT_EQ(IndexFileName(""), "");
}

TEST(IndexFileName, TakesAnEmptyIndexFileForAbsent) {
    EXPECT_EQ(IndexFileName("index_file=;file=data.edb"), "data.edb-idx");
}

}  // namespace
}  // namespace k9erepl::test
