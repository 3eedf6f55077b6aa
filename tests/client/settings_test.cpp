// Settings: the connection strings that it builds, and that it knows every documented key.
#include <gtest/gtest.h>

#include <cctype>
#include <fstream>
#include <k9erepl/settings.hpp>
#include <set>
#include <string>

namespace k9erepl::test {

namespace {

// The keys in the first column of the tables of docs/configuration.md.
std::set<std::string> DocumentedKeys() {
    std::ifstream document(K9EREPL_REPOSITORY "/docs/configuration.md");
    std::set<std::string> keys;
    for (std::string line; std::getline(document, line);) {
        const std::size_t end = line.find('`', 3);
        if (line.starts_with("| `") && end != std::string::npos) {
            const std::string key = line.substr(3, end - 3);
            if (key.find('=') == std::string::npos) {  // else a row of another table
                keys.insert(key);
            }
        }
    }
    return keys;
}

Settings Everything() {
    Settings settings;
    settings.File("f").IndexFile("i").ReadOnly().Check().FileInitialSize(1).FileSizeDelta(2);
    settings.ForceFlush().CommitBarrier().FileLock(false).WriteThrough().KeepLastBlocks(3);
    settings.BlockSize(4).MemoryReserve(5).ReadBuffersCount(6).FlushEveryTransactions(7);
    settings.FlushEveryBytes(8).FlushTimeout(9).IndexHint(10).AuxAffinity(11).AsyncMode();
    return settings.AsyncBufferSize(12).RangeIndexMemory(13);
}

TEST(SettingsOf, NothingIsAnEmptyString) {
    EXPECT_EQ(Settings().ConnectionString(), "");
}

TEST(SettingsOf, EveryKeyIsWritten) {
    EXPECT_EQ(Everything().ConnectionString(),
              "file=f;index_file=i;read_only=yes;check=yes;file_initial_size=1;file_size_delta=2;"
              "force_flush=yes;commit_barrier=yes;file_lock=no;write_through=yes;cache_type=Last3;"
              "block_size=4;memory_reserve=5;read_buffers_count=6;flush_mode=PerData;"
              "flush_trans_num=7;flush_data_size=8;flush_timeout=9;index_hint=10;aux_affinity=11;"
              "async_mode=yes;async_buffer_size=12;range_index_memory=13");
}

TEST(SettingsOf, EveryDocumentedKeyIsKnown) {
    const std::string text = ";" + Everything().ConnectionString();
    const std::set<std::string> keys = DocumentedKeys();
    EXPECT_GE(keys.size(), 22U);
    for (const std::string& key : keys) {
        EXPECT_NE(text.find(";" + key + "="), std::string::npos) << key;
    }
}

TEST(SettingsOf, TheLastCallForAKeyCounts) {
    Settings settings;
    settings.File("one").ForceFlush().File("two").ForceFlush(false);
    EXPECT_EQ(settings.ConnectionString(), "file=two;force_flush=no");
}

TEST(SettingsOf, NeverFlushKeepsEverythingInMemory) {
    EXPECT_EQ(Settings().File(":memory:").NeverFlush().ConnectionString(),
              "file=:memory:;flush_mode=NoFlush;cache_type=AllInMem");
}

TEST(SettingsOf, ValuesThatAConnectionStringCannotHoldAreInvalid) {
    for (const char* const path : {"a;b", "a,b", "", " a", "\ta"}) {
        EXPECT_FALSE(Settings().File(path).IsValid()) << '\'' << path << '\'';
    }
    EXPECT_FALSE(Settings().File(std::string_view("a\0b", 3)).IsValid());
    EXPECT_TRUE(Settings().File("a b=c ").IsValid());
    EXPECT_TRUE(Settings().File("a;b").File("ab").IsValid());
}

}  // namespace

}  // namespace k9erepl::test
