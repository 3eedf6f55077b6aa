// The rules by which records and commit blocks follow one another in a storage file: pure functions
// on items that were read already. The load scan and the tool's verify decide by them what is valid
// data; enumerations and the search for damage use single ones. docs/storage-file.md, "Valid if and
// only if", has the same rules next to those on the file's length and beginning.
//
// In file order:
//  1. The first item is a commit block, unless the walk began at an offset from the index.
//  2. A record's two sizes agree.
//  3. A record's rev is not below the commitRev of the last commit block before it. For the first
//     commit block of the file, the larger of its clearRev and commitRev is used.
//  4. A record's rev is greater than that of the record before it.
//  5. A commit block's prevSequence is the sequence of the commit block before it.
//  6. A commit block's clearRev is not below that of the commit block before it.
//  7. A commit block's commitRev is not below the rev of the last record before it.
// The first item that breaks a rule ends the valid data, which reaches to the end of the last
// commit block before that item.
//
// A walk keeps one StreamEnd and, for each item in turn, calls Check and then, if nothing was
// found, Accept. Whoever walks also tests that the item lies in the file and is not too large.
#ifndef K9EREPL_FORMAT_STREAM_RULES_H
#define K9EREPL_FORMAT_STREAM_RULES_H

#include <algorithm>
#include <cassert>

#include "format/int_types.h"
#include "format/storage_file_format.h"

namespace k9erepl {

// What the accepted items say about the one that follows. Revisions are 0 before the first item. A
// value about a commit block means something only while commitFound is true.
struct StreamEnd {
    // The walk began at an offset from the index, not at the file's first commit block.
    bool fromHint = false;
    // At least one commit block was accepted.
    bool commitFound = false;
    // The sequence of the last accepted commit block.
    u32 lastSequence = 0;
    // The clearRev of that block.
    i64 clearRev = 0;
    // The commitRev of that block. For the file's first commit block, the larger of its commitRev
    // and its clearRev.
    i64 lastCommitted = 0;
    // The clearRev and the last committed revision of the commit block before that one; its own two
    // values while there is only one. The search for damage uses them, because the last block's
    // values may be what is damaged.
    i64 clearRevBefore = 0;
    i64 committedBefore = 0;
    // The revision of the last accepted record.
    i64 prevRecRev = 0;
};

// The rule that a record breaks: kSizesDiffer is rule 2, kBelowCommitted 3, kDoesNotRise 4.
enum class [[nodiscard]] RecordFault{kNone, kSizesDiffer, kBelowCommitted, kDoesNotRise};
// The rule that a commit block breaks: kWrongLink is rule 5, kClearRevFalls 6, kBelowRecord 7.
enum class [[nodiscard]] CommitFault{kNone, kWrongLink, kClearRevFalls, kBelowRecord};

// Rule 2: a record says its size twice. Compared in 64 bits, since dataSize may be any number.
inline bool SizesAgree(const TRecordHead& head) {
    return u64{head.size} == u64{head.dataSize} + kRecordHeadSize;
}

// Rule 4.
inline bool Rises(i64 rev, i64 revBefore) {
    return rev > revBefore;
}

// Rule 1: tells whether a record may be the next item at all. CheckRecord looks at the record
// itself.
inline bool MayTakeRecord(const StreamEnd& end) {
    return end.commitFound || end.fromHint;
}

// The first of the rules 2 to 4 that `head` breaks.
// REQUIRES: MayTakeRecord(end).
inline RecordFault CheckRecord(const StreamEnd& end, const TRecordHead& head) {
    assert(MayTakeRecord(end));
    if (!SizesAgree(head)) {
        return RecordFault::kSizesDiffer;
    }
    if (head.rev < end.lastCommitted) {
        return RecordFault::kBelowCommitted;
    }
    return Rises(head.rev, end.prevRecRev) ? RecordFault::kNone : RecordFault::kDoesNotRise;
}

// Takes the record into *end. REQUIRES: CheckRecord found nothing.
inline void AcceptRecord(const TRecordHead& head, StreamEnd* end) {
    assert(CheckRecord(*end, head) == RecordFault::kNone);
    end->prevRecRev = head.rev;
}

// The first of the rules 5 to 7 that `block` breaks. The first commit block of a walk has nothing
// to link to, so only rule 7 holds for it, and that only when the walk began at an offset from the
// index.
inline CommitFault CheckCommit(const StreamEnd& end, const TCommitBlock& block) {
    if (end.commitFound && block.prevSequence != end.lastSequence) {
        return CommitFault::kWrongLink;
    }
    if (end.commitFound && block.clearRev < end.clearRev) {
        return CommitFault::kClearRevFalls;
    }
    // The file's first commit block has no record before it; a walk from an index offset does meet
    // records before its first commit block.
    const bool mayFollowRecord = end.commitFound || end.fromHint;
    return mayFollowRecord && block.commitRev < end.prevRecRev ? CommitFault::kBelowRecord
                                                               : CommitFault::kNone;
}

// Takes the commit block into *end. `offset` is where the block begins in the file, in bytes.
// REQUIRES: CheckCommit found nothing.
inline void AcceptCommit(const TCommitBlock& block, i64 offset, StreamEnd* end) {
    assert(CheckCommit(*end, block) == CommitFault::kNone);
    assert(offset >= kFirstCommitOffset);
    end->clearRevBefore = end->commitFound ? end->clearRev : i64{block.clearRev};
    end->committedBefore = end->commitFound ? end->lastCommitted : i64{block.commitRev};
    end->clearRev = block.clearRev;
    // Only the file's first commit block uses the larger value, so results do not depend on the
    // index.
    end->lastCommitted = offset == kFirstCommitOffset
                             ? std::max<i64>(block.clearRev, block.commitRev)
                             : i64{block.commitRev};
    end->lastSequence = block.sequence;
    end->commitFound = true;
}

}  // namespace k9erepl

#endif  // K9EREPL_FORMAT_STREAM_RULES_H
