// Enumeration of committed records from the file; see the header.
#include "solid/record_enum.h"

#include <algorithm>
#include <cassert>
#include <limits>

#include "format/stream_rules.h"
#include "support/log.h"
#include "support/scoped_value.h"

namespace k9erepl {

namespace {

// RC_BAD_DATA for a head that no writer of ours produces or whose record runs past the data.
[[nodiscard]] ResultCode CheckHead(const TRecordHead& head, i64 offset, i64 left) {
    if (!SizesAgree(head) || i64{head.size} > left) {
        LOG_ERROR_CODE(RC_BAD_DATA, kLogStorage, "Wrong rec size %u, data size %u, offset %I64d",
                       u32{head.size}, u32{head.dataSize}, offset);
        return RC_BAD_DATA;
    }
    return RC_OK;
}

[[nodiscard]] ResultCode CheckCommitted(i64 rev, i64 lastCommitted) {
    if (rev > lastCommitted) {
        LOG_ERROR_CODE(RC_BAD_DATA, kLogStorage,
                       "Read uncommitted rec with rev %I64d,last committed rev %I64d", rev,
                       lastCommitted);
        return RC_BAD_DATA;
    }
    return RC_OK;
}

}  // namespace

// What the enumeration does with one item.
struct RecordEnum::Item {
    bool isRecord = false;
    bool pastRange = false;  // a record above the range: the enumeration is done
    bool visit = false;
    u32 size = 0;
};

struct RecordEnum::Receiver {
    FileItemVisitor visitor;
    void* ctx;
    bool* completed;  // true until the visitor stops the enumeration

    // `rec` is where the client's record begins; null for a commit block.
    [[nodiscard]] ResultCode Visit(i64 offset, const u8* rec) const {
        const ResultCode rc = visitor(offset, reinterpret_cast<const K9eReplRec*>(rec), ctx);
        if (rc != RC_OK) {
            *completed = false;
        }
        return rc;
    }
};

ResultCode RecordEnum::TakeHeld(FileItems& items, const FileEnumRange& range,
                                const Receiver& receiver) const {
    const std::atomic<i64>& lastCommitted = m_file.State().lastFlushedRev;
    const i64 visitFrom = range.alsoPassed ? std::numeric_limits<i64>::min() : range.fromRev;
    const u8* here = nullptr;
    u32 left = items.Held(&here);
    while (left >= std::max(kRecordHeadSize, kCommitBlockSize)) {
        const auto head = LoadUnaligned<TRecordHead>(here);
        u32 size = kCommitBlockSize;
        if (head.signature == kRecordSignature) {
            // The size is a claim of the file: it must lie in the buffer before it is a step.
            size = head.size;
            if (!SizesAgree(head) || size > left || head.rev > range.toRev ||
                head.rev > lastCommitted || !items.TakeRising(head.rev)) {
                return RC_OK;
            }
            if (head.rev >= visitFrom) {
                if (ResultCode rc = receiver.Visit(items.Offset(), here + kRecordPrefixSize);
                    rc != RC_OK) {
                    return rc;
                }
            }
        } else if (head.signature != kCommitSignature || range.alsoCommits) {
            return RC_OK;
        }
        items.Advance(size);
        if (!items.HoldsStill()) {
            return RC_OK;
        }
        here += size;
        left -= size;
    }
    return RC_OK;
}

ResultCode RecordEnum::CheckStart(FileItems& items, const FileEnumRange& range) {
    assert(range.startOffset != 0);
    if (items.Left() < i64{kRecordHeadSize}) {
        return kNoSuchRecord;
    }
    const u8* bytes = nullptr;
    if (ResultCode rc = items.Get(kRecordHeadSize, &bytes); rc != RC_OK) {
        return rc;
    }
    const auto head = LoadUnaligned<TRecordHead>(bytes);
    const bool holds = head.signature == kRecordSignature && SizesAgree(head) &&
                       i64{head.size} <= items.Left() && head.rev == range.startRev;
    return holds ? ResultCode{RC_OK} : kNoSuchRecord;
}

ResultCode RecordEnum::LookAtItem(FileItems& items, const FileEnumRange& range, Item* item) const {
    const u8* bytes = nullptr;
    if (ResultCode rc = items.Get(kSignatureSize, &bytes); rc != RC_OK) {
        return rc;
    }
    const u32 signature = LoadUnaligned<u32>(bytes);
    if (signature == kCommitSignature) {
        *item = {.visit = range.alsoCommits, .size = kCommitBlockSize};
        return items.Get(kCommitBlockSize, &bytes);
    }
    if (signature != kRecordSignature) {
        LOG_ERROR_CODE(RC_BAD_DATA, kLogStorage, "Wrong signature (0x%8.8X) found, offset %I64d",
                       signature, items.Offset());
        return RC_BAD_DATA;
    }
    if (ResultCode rc = items.Get(kRecordHeadSize, &bytes); rc != RC_OK) {
        return rc;
    }
    const auto head = LoadUnaligned<TRecordHead>(bytes);
    *item = {.isRecord = true,
             .pastRange = head.rev > range.toRev,
             .visit = head.rev >= range.fromRev,
             .size = head.size};
    if (ResultCode rc = CheckHead(head, items.Offset(), items.Left()); rc != RC_OK) {
        return rc;
    }
    if (item->pastRange) {
        return CheckRangeEnd(items, range, head);
    }
    if (ResultCode rc = CheckCommitted(head.rev, m_file.State().lastFlushedRev); rc != RC_OK) {
        return rc;
    }
    return items.CheckRises(head.rev);
}

// The load has not seen what lies before the place to which an index led it. A revision there that
// damage has made larger must not pass for the end of the range and hide the records behind it.
ResultCode RecordEnum::CheckRangeEnd(FileItems& items, const FileEnumRange& range,
                                     const TRecordHead& head) const {
    assert(head.rev > range.toRev);
    const i64 written = std::max(i64{m_file.State().lastFlushedRev}, m_file.LastWrittenRev());
    if (ResultCode rc = CheckCommitted(head.rev, written); rc != RC_OK) {
        return rc;
    }
    if (items.Offset() < range.reachesTo) {
        LOG_ERROR_CODE(RC_BAD_DATA, kLogStorage,
                       "Read rec with rev %I64d, but revs up to %I64d reach to offset %I64d, "
                       "offset %I64d",
                       i64{head.rev}, range.toRev, range.reachesTo, items.Offset());
        return RC_BAD_DATA;
    }
    if (ResultCode rc = items.ReachNext(head.size); rc != RC_OK) {
        return rc;
    }
    i64 nextOffset = 0;
    TRecordHead next{};
    if (items.PeekNext(head.size, &nextOffset, &next) && !Rises(next.rev, head.rev)) {
        LOG_ERROR_CODE(RC_BAD_DATA, kLogStorage,
                       "Read rec with rev %I64d, but rev before it is %I64d, offset %I64d",
                       i64{next.rev}, i64{head.rev}, nextOffset);
        return RC_BAD_DATA;
    }
    return RC_OK;
}

ResultCode RecordEnum::VisitItem(FileItems& items, const Item& item, const Receiver& receiver) {
    const u8* bytes = nullptr;
    if (ResultCode rc = items.Get(item.size, &bytes); rc != RC_OK) {
        return rc;
    }
    return receiver.Visit(items.Offset(), item.isRecord ? bytes + kRecordPrefixSize : nullptr);
}

ResultCode RecordEnum::Run(const FileEnumRange& range, FileItemVisitor visitor, void* ctx,
                           bool* completed) {
    assert(visitor != nullptr && completed != nullptr);
    assert(range.startOffset == 0 || range.startOffset >= kFirstCommitOffset);
    *completed = true;
    if (!m_file.IsOpen()) {
        return RC_NO_WRITER;
    }
    const ScopedValue level(m_depth, m_depth + 1);
    ReadCacheManager* cache = nullptr;
    if (ResultCode rc = m_buffers.OfLevel(m_depth, &cache); rc != RC_OK) {
        return rc;
    }
    FileItems items(m_file, m_live, m_buffers, *cache,
                    range.startOffset == 0 ? kFirstCommitOffset : range.startOffset,
                    range.reachesTo);
    const Receiver receiver{visitor, ctx, completed};
    if (range.startRev) {
        if (ResultCode rc = CheckStart(items, range); rc != RC_OK) {
            return rc;
        }
    }
    while (items.Left() > 0) {
        Item item;
        if (ResultCode rc = LookAtItem(items, range, &item); rc != RC_OK || item.pastRange) {
            return rc;
        }
        if (item.visit) {
            if (ResultCode rc = VisitItem(items, item, receiver); rc != RC_OK) {
                return rc;
            }
        }
        items.Advance(item.size);
        if (ResultCode rc = TakeHeld(items, range, receiver); rc != RC_OK) {
            return rc;
        }
    }
    LOG_INFO(kLogStorage, "Exit Enum");
    return RC_OK;
}

}  // namespace k9erepl
