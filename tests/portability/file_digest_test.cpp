// The sum of a file leaves out the stamps of commit blocks, and nothing else.
#include "portability/file_digest.h"

#include <gtest/gtest.h>

#include "support/storage_file_builder.h"

namespace k9erepl::portable {
namespace {

using test::FileBuilder;

TCommitBlock Block(u32 prevSequence, u32 sequence, i64 commitRev) {
    TCommitBlock block = NewCommitBlock(sequence, commitRev);
    block.prevSequence = prevSequence;
    return block;
}

FileBuilder TwoCommits(u32 first, u32 second, u32 linkedTo) {
    FileBuilder file;
    file.Header().RawCommit(Block(0, first, 0)).Record(1, "one");
    file.RawCommit(Block(linkedTo, second, 1));
    return file;
}

TEST(FileDigest, IsThatOfAFileWithOtherStamps) {
    EXPECT_EQ(Digest(TwoCommits(100, 200, 100).Bytes()), Digest(TwoCommits(7, 8, 7).Bytes()));
}

TEST(FileDigest, DiffersWhenTheChainIsBroken) {
    EXPECT_NE(Digest(TwoCommits(100, 200, 100).Bytes()), Digest(TwoCommits(100, 200, 101).Bytes()));
}

TEST(FileDigest, DiffersWithEveryOtherByte) {
    const std::vector<u8> bytes = TwoCommits(100, 200, 100).Bytes();
    for (std::size_t offset = 0; offset < bytes.size(); ++offset) {
        const bool isStamp = (offset >= 1024 + 4 && offset < 1024 + 12) ||
                             (offset >= bytes.size() - 28 && offset < bytes.size() - 20);
        std::vector<u8> changed = bytes;
        changed[offset] ^= 1;
        EXPECT_TRUE(isStamp || Digest(changed) != Digest(bytes)) << offset;
    }
}

// A file that was started over keeps bytes behind its eight zeros.
TEST(FileDigest, LeavesOutStampsBehindTheValidData) {
    const auto startedOver = [](u32 stamp) {
        FileBuilder file;
        file.Header().RawCommit(Block(stamp, stamp + 1, 1)).Zeros(8).Fill(5, 0x55);
        file.RawCommit(Block(stamp - 1, stamp, 1));
        return Digest(file.Bytes());
    };
    EXPECT_EQ(startedOver(1000), startedOver(2000));
}

TEST(FileDigest, TakesOtherFilesAsTheyAre) {
    const std::vector<u8> bytes(2000, 0x7D);
    EXPECT_EQ(WithoutStamps(bytes), bytes);
    EXPECT_EQ(Digest({}), "cbf29ce484222325 0");
}

}  // namespace
}  // namespace k9erepl::portable
