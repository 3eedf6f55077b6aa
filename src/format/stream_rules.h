// The rules by which records and commit blocks follow one another in a storage file: pure functions
// on items that were read already. The load scan and the tool's verify decide by them what is valid
// data; enumerations and the search behind a damage use single ones.
//
// In file order:
//  1. Without a hint, the first item is a commit block.
//  2. A record's two sizes agree.
//  3. A record's rev is not below the commitRev of the last commit block before it; the file's
//  first
//     commit block counts with the larger of its clearRev and commitRev.
//  4. A record's rev is greater than that of the record before it.
//  5. A commit block's prevSequence is the sequence of the commit block before it.
//  6. Its clearRev is not below that of the commit block before it.
//  7. Its commitRev is not below the rev of the last record before it.
// The first item that breaks a rule ends the valid data, which reaches to the end of the last
// commit block before that item.
#ifndef K9EREPL_FORMAT_STREAM_RULES_H
#define K9EREPL_FORMAT_STREAM_RULES_H

#include <algorithm>
#include <cassert>

#include "format/int_types.h"
#include "format/storage_file_format.h"

namespace k9erepl {

// What the accepted items say about the one that follows. Revisions are 0 before the first item.
struct StreamEnd {
    bool fromHint = false;     // the walk began where an index said, not at the first commit block
    bool commitFound = false;  // at least one commit block was accepted
    u32 lastSequence = 0;      // of the last accepted commit block
    i64 clearRev = 0;          // of that block
    i64 lastCommitted = 0;     // its commitRev; of the file's first, the larger of both
    i64 clearRevBefore = 0;    // of the commit block before it; if there is none, its own
    i64 committedBefore = 0;   // the same
    i64 prevRecRev = 0;        // of the last accepted record
};

enum class [[nodiscard]] RecordFault{kNone, kSizesDiffer, kBelowCommitted, kDoesNotRise};
enum class [[nodiscard]] CommitFault{kNone, kWrongLink, kClearRevFalls, kBelowRecord};

// Each record says its size twice.
inline bool SizesAgree(const TRecordHead& head) {
    return u64{head.size} == u64{head.dataSize} + kRecordHeadSize;
}

inline bool Rises(i64 rev, i64 revBefore) {
    return rev > revBefore;
}

// Whether a record may be the next item at all; CheckRecord looks at the record itself.
inline bool MayTakeRecord(const StreamEnd& end) {
    return end.commitFound || end.fromHint;
}

// The first rule that `head` breaks.
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

// REQUIRES: CheckRecord found nothing.
inline void AcceptRecord(const TRecordHead& head, StreamEnd* end) {
    assert(CheckRecord(*end, head) == RecordFault::kNone);
    end->prevRecRev = head.rev;
}

// The first rule that `block` breaks.
inline CommitFault CheckCommit(const StreamEnd& end, const TCommitBlock& block) {
    if (end.commitFound && block.prevSequence != end.lastSequence) {
        return CommitFault::kWrongLink;
    }
    if (end.commitFound && block.clearRev < end.clearRev) {
        return CommitFault::kClearRevFalls;
    }
    // The file's first commit block has no record before it, but that of a hint has.
    const bool mayFollowRecord = end.commitFound || end.fromHint;
    return mayFollowRecord && block.commitRev < end.prevRecRev ? CommitFault::kBelowRecord
                                                               : CommitFault::kNone;
}

// `offset` is where the block begins in the file.
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
