// How many bytes an enumeration reads at once: little at first, because a range may end soon, and
// whole buffers when it goes on.
#include <gtest/gtest.h>

#include <vector>

#include "memory/read_cache_manager.h"
#include "solid/solid_fixture.h"
#include "support/fault_injection.h"

namespace k9erepl::test {
namespace {

using Sizes = std::vector<u32>;

Sizes g_readSizes;

i64 NotedRead(platform::NativeFile file, void* buffer, u32 size) {
    g_readSizes.push_back(size);
    return platform::NativeSystemCalls().readFile(file, buffer, size);
}

constexpr u32 kKi = 1024;

// 90 records of 100,000 bytes.
class EnumReads : public SolidTest {
  protected:
    EnumReads() {
        FileBuilder file;
        file.NewFile();
        for (i64 rev = 1; rev <= 90; ++rev) {
            file.LargeRecord(rev, 100'000 - kRecordHeadSize);
        }
        Open(file.Commit(0, 90));
        EXPECT_EQ(Scan(), RC_OK);
        platform::TheSystemCalls().readFile = NotedRead;
        g_readSizes.clear();
    }
};

TEST_F(EnumReads, AreSmallAtFirstAndDoubleWhileTheReaderGoesOn) {
    EXPECT_EQ(Enumerate({.fromRev = 1, .toRev = 5}), RC_OK);
    // Each record ends behind what was read before it.
    EXPECT_EQ(g_readSizes, Sizes({32 * kKi, 100'000, 128 * kKi, 256 * kKi, 512 * kKi}));
}

TEST_F(EnumReads, OfALongPassAreWholeBuffersFromTheSecondOn) {
    EXPECT_EQ(Enumerate({.fromRev = 1, .toRev = 89, .reachesTo = 1056 + 89 * 100'000}), RC_OK);
    ASSERT_GE(g_readSizes.size(), 3U);
    EXPECT_EQ(g_readSizes[0], 32 * kKi);
    EXPECT_EQ(g_readSizes[1], ReadCacheManager::kBufferSize);
    EXPECT_EQ(g_readSizes[2], ReadCacheManager::kBufferSize);
}

TEST_F(EnumReads, StartAgainWithALittleForTheNextRange) {
    EXPECT_EQ(Enumerate({.fromRev = 1, .toRev = 1}), RC_OK);
    g_readSizes.clear();
    EXPECT_EQ(Enumerate({.fromRev = 80, .toRev = 80, .startOffset = 1056 + 79 * 100'000}), RC_OK);
    ASSERT_FALSE(g_readSizes.empty());
    EXPECT_EQ(g_readSizes[0], 32 * kKi);
}

}  // namespace
}  // namespace k9erepl::test
