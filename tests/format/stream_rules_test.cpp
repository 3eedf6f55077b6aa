// Which record and which commit block may follow the items before them.
#include "format/stream_rules.h"

#include <gtest/gtest.h>

#include <limits>

namespace k9erepl::test {
namespace {

constexpr i64 kLaterOffset = kFirstItemOffset;

// Behind a commit block with clear revision 3, commit revision 10 and sequence 5.
StreamEnd BehindCommit() {
    StreamEnd end;
    end.commitFound = true;
    end.lastSequence = 5;
    end.clearRev = 3;
    end.lastCommitted = 10;
    return end;
}

StreamEnd BehindRecord(i64 rev) {
    StreamEnd end = BehindCommit();
    end.prevRecRev = rev;
    return end;
}

TRecordHead Record(i64 rev, u32 dataSize = 0) {
    return {.signature = kRecordSignature,
            .size = dataSize + kRecordHeadSize,
            .rev = rev,
            .userWord = 0,
            .dataSize = dataSize};
}

TCommitBlock Commit(i64 clearRev, i64 commitRev, u32 prevSequence = 5) {
    return {.signature = kCommitSignature,
            .prevSequence = prevSequence,
            .sequence = 6,
            .zero = 0,
            .clearRev = clearRev,
            .commitRev = commitRev};
}

TEST(StreamRules, ARecordNeedsACommitBlockOrAHintInFrontOfIt) {
    StreamEnd end;
    EXPECT_FALSE(MayTakeRecord(end));
    end.fromHint = true;
    EXPECT_TRUE(MayTakeRecord(end));
    EXPECT_TRUE(MayTakeRecord(BehindCommit()));
}

TEST(StreamRules, ARecordSaysItsSizeTwiceAndIsAboveTheOneBeforeIt) {
    EXPECT_EQ(CheckRecord(BehindCommit(), Record(10)), RecordFault::kNone);
    EXPECT_EQ(CheckRecord(BehindCommit(), Record(9)), RecordFault::kBelowCommitted);
    EXPECT_EQ(CheckRecord(BehindRecord(12), Record(13)), RecordFault::kNone);
    EXPECT_EQ(CheckRecord(BehindRecord(12), Record(12)), RecordFault::kDoesNotRise);
    EXPECT_EQ(CheckRecord(BehindRecord(12), Record(1)), RecordFault::kBelowCommitted);
    TRecordHead head = Record(1, 7);
    head.size += 1;
    EXPECT_EQ(CheckRecord(BehindRecord(12), head), RecordFault::kSizesDiffer);
    head.dataSize = std::numeric_limits<u32>::max();
    head.size = head.dataSize + kRecordHeadSize;  // 23
    EXPECT_FALSE(SizesAgree(head));
}

TEST(StreamRules, ACommitBlockLinksToTheOneBeforeItAndReachesToTheLastRecord) {
    EXPECT_EQ(CheckCommit({}, Commit(-7, -9, 99)), CommitFault::kNone) << "the file's first";
    EXPECT_EQ(CheckCommit(BehindCommit(), Commit(3, 10)), CommitFault::kNone);
    EXPECT_EQ(CheckCommit(BehindCommit(), Commit(3, 10, 4)), CommitFault::kWrongLink);
    EXPECT_EQ(CheckCommit(BehindCommit(), Commit(2, 10)), CommitFault::kClearRevFalls);
    EXPECT_EQ(CheckCommit(BehindRecord(12), Commit(3, 12)), CommitFault::kNone);
    EXPECT_EQ(CheckCommit(BehindRecord(12), Commit(3, 11)), CommitFault::kBelowRecord);
}

TEST(StreamRules, TheFirstCommitBlockBehindAHintReachesToTheRecordsBeforeIt) {
    StreamEnd end;
    end.fromHint = true;
    AcceptRecord(Record(12), &end);
    EXPECT_EQ(CheckCommit(end, Commit(0, 12, 99)), CommitFault::kNone);
    EXPECT_EQ(CheckCommit(end, Commit(0, 11, 99)), CommitFault::kBelowRecord);
}

TEST(StreamRules, TheFilesFirstCommitBlockCountsWithTheLargerRevision) {
    StreamEnd end;
    AcceptCommit(Commit(20, 10), kFirstCommitOffset, &end);
    EXPECT_EQ(end.lastCommitted, 20);
    EXPECT_EQ(end.clearRev, 20);
    EXPECT_EQ(CheckRecord(end, Record(19)), RecordFault::kBelowCommitted);
}

TEST(StreamRules, ALaterCommitBlockCountsWithItsCommitRevisionAlsoBehindAHint) {
    StreamEnd end;
    end.fromHint = true;
    AcceptCommit(Commit(20, 10), kLaterOffset, &end);
    EXPECT_EQ(end.lastCommitted, 10);
}

TEST(StreamRules, WhatTheCommitBlockBeforeTheLastSaidIsRemembered) {
    StreamEnd end;
    AcceptCommit(Commit(1, 2), kFirstCommitOffset, &end);
    EXPECT_EQ(end.clearRevBefore, 1);
    EXPECT_EQ(end.committedBefore, 2);
    AcceptCommit(Commit(3, 10, 6), kLaterOffset, &end);
    EXPECT_EQ(end.clearRevBefore, 1);
    EXPECT_EQ(end.committedBefore, 2);
    EXPECT_EQ(end.lastSequence, 6U);
}

}  // namespace
}  // namespace k9erepl::test
