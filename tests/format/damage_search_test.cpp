// What counts as data that goes on behind a damage.
#include "format/damage_search.h"

#include <gtest/gtest.h>

#include <vector>

#include "support/storage_file_builder.h"

namespace k9erepl::test {
namespace {

constexpr LastGoodCommit kLast{.clearRev = 3, .commitRev = 10, .sequence = 5};

BeyondDamage SearchIn(const FileBuilder& file) {
    // Of its own size, so that a sanitizer sees a read behind it.
    const std::vector<u8> bytes(file.Bytes());
    return SearchBeyondDamage(bytes.data(), bytes.size(), kLast);
}

FileBuilder Junk() {
    return FileBuilder().Fill(101, 0xEE);
}

// Not of the builder's own chain.
TCommitBlock Block(u32 prevSequence, u32 sequence, i64 commitRev, i64 clearRev = 3) {
    TCommitBlock block = NewCommitBlock(sequence, commitRev);
    block.prevSequence = prevSequence;
    block.clearRev = clearRev;
    return block;
}

void ExpectFound(const FileBuilder& file, u32 linkedBlocks, i64 lowestRev, i64 highestRev) {
    const BeyondDamage found = SearchIn(file);
    EXPECT_EQ(found.linkedBlocks, linkedBlocks);
    EXPECT_EQ(found.lowestRev, lowestRev);
    EXPECT_EQ(found.highestRev, highestRev);
}

TEST(DamageSearch, FindsNothingInNothingOneCommitBlockOrTwoThatAreNotLinked) {
    EXPECT_FALSE(SearchBeyondDamage(nullptr, 0, kLast).IsDamage());
    EXPECT_FALSE(SearchIn(Junk().Zeros(1000)).IsDamage());
    EXPECT_FALSE(SearchIn(Junk().Record(12, "x").Commit(3, 12).Fill(50, 0xEE)).IsDamage());
    EXPECT_FALSE(SearchIn(Junk().Commit(3, 12).RawCommit(Block(76, 77, 20))).IsDamage());
    EXPECT_EQ(SearchIn(FileBuilder().Commit(3, 10).Commit(4, 10).Commit(5, 10)).linkedBlocks, 2U);
}

TEST(DamageSearch, TwoCommitBlocksThatAreLinkedAreDamage) {
    FileBuilder file = Junk().Record(12, "x").Commit(3, 12).Fill(7, 0xEE);
    file.Record(15, "").Commit(3, 15);
    EXPECT_TRUE(SearchIn(file).IsDamage());
    ExpectFound(file, 1, 12, 15);
}

TEST(DamageSearch, TellsRevisionsByCommitBlocksWhereNoRecordIsSound) {
    ExpectFound(Junk().Commit(3, 12).Fill(7, 0xEE).Commit(4, 15), 1, 12, 15);
}

TEST(DamageSearch, RevisionsNeverFall) {
    EXPECT_FALSE(SearchIn(Junk().Commit(3, 9).Commit(3, 12)).IsDamage()) << "of an older chain";
    EXPECT_FALSE(SearchIn(Junk().Commit(2, 11).Commit(3, 12)).IsDamage()) << "of an older chain";
    EXPECT_FALSE(SearchIn(Junk().Commit(3, 12).Commit(3, 11)).IsDamage());
    EXPECT_FALSE(SearchIn(Junk().Commit(5, 12).Commit(4, 13)).IsDamage());
}

TEST(DamageSearch, ABlockThatNothingLinksToRaisesNoBound) {
    const TCommitBlock damaged = Block(69, 70, 1LL << 50, 1LL << 40);
    FileBuilder file = Junk().RawCommit(damaged).Record(12, "x").Commit(3, 12);
    EXPECT_FALSE(SearchIn(file).IsDamage());
    ExpectFound(file.Record(15, "y").Commit(3, 15), 1, 12, 15);
}

TEST(DamageSearch, ADamagedBlockAtTheStopHidesNothingBehindTheOneThatLinksToIt) {
    FileBuilder file = FileBuilder().RawCommit(Block(0, 70, 1LL << 50)).Record(12, "x");
    file.RawCommit(Block(70, 71, 12)).Record(15, "y").RawCommit(Block(71, 72, 15));
    ExpectFound(file, 2, 12, 15);
}

TEST(DamageSearch, TwoBlocksThatAreLinkedRaiseTheBound) {
    FileBuilder file = Junk().Commit(3, 12).Commit(3, 13);
    file.RawCommit(Block(70, 71, 11)).RawCommit(Block(71, 72, 11));
    EXPECT_EQ(SearchIn(file).linkedBlocks, 1U);
}

TEST(DamageSearch, RevisionsMayFallBehindALastBlockThatIsItselfDamaged) {
    const TCommitBlock next = Block(kLast.sequence, 6, 9, 0);
    const TCommitBlock afterNext = Block(6, 7, 9, 0);
    EXPECT_FALSE(SearchIn(FileBuilder().RawCommit(next)).IsDamage());
    EXPECT_TRUE(SearchIn(FileBuilder().RawCommit(next).RawCommit(afterNext)).IsDamage());
    EXPECT_FALSE(SearchIn(FileBuilder().RawCommit(afterNext).RawCommit(next)).IsDamage());
}

TEST(DamageSearch, PassesOverTheDataOfSoundRecords) {
    const std::vector<u8> inner = FileBuilder().Commit(3, 12).Commit(3, 13).Bytes();
    const std::string data(inner.begin(), inner.end());
    EXPECT_FALSE(SearchIn(Junk().Record(11, data).Commit(3, 11)).IsDamage());
    // Behind a head that is not sound nobody knows what is data.
    EXPECT_TRUE(SearchIn(Junk().HeadClaiming(11, 90, 64).Raw(data.data(), data.size())).IsDamage());
}

TEST(DamageSearch, FindsItemsBehindPartsOfTheirSignatures) {
    for (const u8 byte : {'}', '*', '-', ':', '{'}) {
        FileBuilder file = FileBuilder().Fill(3, byte).Record(12, "x").Commit(3, 12);
        const BeyondDamage found = SearchIn(file.Fill(1, byte).Commit(3, 13));
        EXPECT_EQ(found.linkedBlocks, 1U) << byte;
        EXPECT_EQ(found.lowestRev, 12) << byte;
    }
}

TEST(DamageSearch, IsNotLedAstrayByAHeadThatClaimsTooMuch) {
    for (const u32 size : {u32{24}, u32{30}, u32{10'000}, u32{0xFFFFFFFF}}) {
        FileBuilder file = Junk().HeadClaiming(11, size, size - 24);
        EXPECT_TRUE(SearchIn(file.Commit(3, 12).Commit(3, 13)).IsDamage()) << size;
    }
}

TEST(DamageSearch, ReadsNothingBehindItsBytes) {
    const FileBuilder whole = Junk().Record(12, "abc").Commit(3, 12).Record(13, "").Commit(3, 13);
    for (i64 size = 0; size <= whole.Size(); ++size) {
        EXPECT_EQ(SearchIn(FileBuilder(whole).CutTo(size)).IsDamage(), size == whole.Size())
            << size;
    }
}

TEST(DamageSearch, LooksTenMebibytesFar) {
    FileBuilder near = Junk();
    near.Zeros(kDamageSearchSize - 64 - 101).Commit(3, 12).Commit(3, 13);
    EXPECT_TRUE(SearchIn(near).IsDamage());
    FileBuilder far = Junk();
    far.Zeros(kDamageSearchSize - 63 - 101).Commit(3, 12).Commit(3, 13);
    EXPECT_FALSE(SearchIn(far).IsDamage());
}

}  // namespace
}  // namespace k9erepl::test
