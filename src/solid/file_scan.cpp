// The load scan; see file_scan.h.
#include "solid/file_scan.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <limits>

#include "platform/system_error.h"
#include "support/log.h"

namespace k9erepl {

using platform::LastSystemError;

namespace {

// Logs why the scan ends. In a live file that is no fault: the last item may be half-written.
#define LOG_SCAN_END(...)                          \
    do {                                           \
        if (m_extent.isLive) {                     \
            LOG_INFO(kLogStorage, __VA_ARGS__);    \
        } else {                                   \
            LOG_WARNING(kLogStorage, __VA_ARGS__); \
        }                                          \
    } while (false)

bool AnyNonZero(const u8* bytes, u32 size) {
    // All bytes are zero if the first one is and each equals its neighbour. memcmp compares whole
    // words, which matters: the tail of a pre-sized file is most of what a buffer holds.
    return size != 0 && (bytes[0] != 0 || std::memcmp(bytes, bytes + 1, size - 1) != 0);
}

}  // namespace

FileScan::FileScan(platform::TrackedFile& file, const Extent& extent,
                   const FileScanCallbacks& callbacks)
    : m_file(file), m_extent(extent), m_callbacks(callbacks) {}

ResultCode FileScan::Run(i64 startOffset, bool fromHint) {
    assert(startOffset >= kFirstCommitOffset);
    m_result.fromHint = fromHint;
    return RunFrom(startOffset);
}

ResultCode FileScan::Resume(const Result& from) {
    assert(from.validCommitOffset >= kFirstCommitOffset);
    m_result = from;
    m_result.commitFound = true;
    return RunFrom(from.validCommitOffset + kCommitBlockSize);
}

ResultCode FileScan::RunFrom(i64 offset) {
    m_buffer = platform::AllocBuffer(kBufferSize);
    if (m_buffer == nullptr) {
        return RC_NO_MEMORY;
    }
    m_offset = offset;
    m_bufferOffset = offset;
    m_readSize = m_extent.isLive ? kFirstLiveRead : kReadSize;
    Step step = Step::kNext;
    while (step == Step::kNext) {
        step = TakeHeldRecords();
        if (step == Step::kNext) {
            step = TakeItem();
        }
    }
    return step == Step::kFail ? m_failure : Finish();
}

FileScan::Step FileScan::Fail(ResultCode rc) {
    assert(rc != RC_OK);
    m_failure = rc;
    return Step::kFail;
}

// Makes `size` bytes at the current offset available in the buffer.
FileScan::Step FileScan::Need(u32 size) {
    return Left() >= size ? Step::kNext : Fill(size);
}

u32 FileScan::NextReadSize(u32 needed) {
    const u64 several = std::min<u64>(u64{kItemsOfARead} * needed, kBufferSize);
    const u32 size = std::max(m_readSize, static_cast<u32>(several));
    m_readSize = std::max(size, std::min(2 * size, kReadSize));
    return size;
}

FileScan::Step FileScan::Read(u32 size) {
    assert(size <= kBufferSize);
    if (!m_file.Seek(m_offset)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                       "Cannot seek to start enum recs;offset %I64d, sys-err %r", m_offset,
                       LastSystemError());
        return Fail(RC_SYSTEM_ERROR);
    }
    u32 got = 0;
    if (!m_file.Read(m_buffer.get(), size, &got)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Failed to read block;sys-err %r,offset %I64d",
                       LastSystemError(), m_offset);
        return Fail(RC_SYSTEM_ERROR);
    }
    m_bufferOffset = m_offset;
    m_bufferLength = got;
    if (m_extent.mark != nullptr) {
        if (ResultCode rc = m_extent.mark->Check(m_file); rc != RC_OK) {
            return Fail(rc);
        }
    }
    return Step::kNext;
}

FileScan::Step FileScan::Fill(u32 needed) {
    assert(needed > Left());
    const i64 toRead = std::clamp<i64>(m_extent.fileSize - m_offset, 0, NextReadSize(needed));
    if (Step step = Read(static_cast<u32>(toRead)); step != Step::kNext) {
        return step;
    }
    const u32 got = Left();
    if (got < needed) {
        // A live file may have been cut and sized again.
        if (i64{got} < toRead && !m_extent.isLive) {
            if (Step step = CheckEnd(m_offset + got); step != Step::kNext) {
                return step;
            }
        }
        LOG_SCAN_END("Couldn't read %P bytes at once", std::size_t{needed});
        return Step::kStop;
    }
    return Step::kNext;
}

// A read ended at `reached`, before the end of the file as it was known. If the file has bytes
// there all the same, this is no end of the data: the next write would make the rest zero.
FileScan::Step FileScan::CheckEnd(i64 reached) {
    assert(reached >= m_offset && !m_extent.isLive);
    i64 size = 0;
    if (!m_file.Raw().GetSize(&size)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Cannot get file size;sys-err %r",
                       LastSystemError());
        return Fail(RC_SYSTEM_ERROR);
    }
    if (size > reached) {
        LOG_ERROR_CODE(RC_SHORT_READ, kLogStorage,
                       "Reading ended before the end of the file;offset %I64d,file size %I64d",
                       reached, size);
        return Fail(RC_SHORT_READ);
    }
    return Step::kNext;
}

FileScan::Step FileScan::TakeHeldRecords() {
    if (!MayTakeRecord(m_result)) {
        return Step::kNext;
    }
    const u8* here = Here();
    u32 left = Left();
    while (left >= kRecordHeadSize && m_offset < m_extent.dataEnd) {
        const auto head = LoadUnaligned<TRecordHead>(here);
        // The size is a claim of the file: it must lie in the buffer before it is a step.
        if (head.signature != kRecordSignature || head.size > left ||
            CheckRecord(m_result, head) != RecordFault::kNone) {
            break;
        }
        const auto* rec = reinterpret_cast<const K9eReplRec*>(here + kRecordPrefixSize);
        if (ResultCode rc = m_callbacks.record(static_cast<u64>(m_offset), rec, m_callbacks.ctx);
            rc != RC_OK) {
            return Fail(rc);
        }
        AcceptRecord(head, &m_result);
        m_offset += head.size;
        here += head.size;
        left -= head.size;
    }
    return Step::kNext;
}

FileScan::Step FileScan::TakeItem() {
    if (Step step = Need(kSignatureSize); step != Step::kNext) {
        return step;
    }
    const u32 signature = LoadUnaligned<u32>(Here());
    const bool isRecord = signature == kRecordSignature;
    if (isRecord || signature == kCommitSignature) {
        if (m_offset < m_extent.dataEnd) {
            return isRecord ? TakeRecord() : TakeCommit();
        }
        LOG_INFO(kLogStorage, "Loading stopped at the end of the written data, offset %I64d",
                 m_offset);
        return Step::kStop;
    }
    LOG_INFO(kLogStorage, "Loading stopped due to wrong signature (0x%8.8X) at offset %I64d",
             signature, m_offset);
    return Step::kStop;
}

FileScan::Step FileScan::TakeRecord() {
    if (!MayTakeRecord(m_result)) {
        LOG_ERROR_CODE(RC_FILE_CORRUPT, kLogStorage,
                       "Found rec, but commit expected at offset %I64d", m_offset);
        return Fail(RC_FILE_CORRUPT);
    }
    if (Step step = Need(kRecordPrefixSize); step != Step::kNext) {
        return step;
    }
    // The size is a claim of the file. If it is below that of a head, a whole head is read all the
    // same, and TestRecord refuses it.
    const u32 size = LoadUnaligned<u32>(Here() + kSignatureSize);
    if (Step step = Need(std::max(size, kRecordHeadSize)); step != Step::kNext) {
        return step;
    }
    const auto head = LoadUnaligned<TRecordHead>(Here());
    if (Step step = TestRecord(head); step != Step::kNext) {
        return step;
    }
    const auto* rec = reinterpret_cast<const K9eReplRec*>(Here() + kRecordPrefixSize);
    if (ResultCode rc = m_callbacks.record(static_cast<u64>(m_offset), rec, m_callbacks.ctx);
        rc != RC_OK) {
        return Fail(rc);
    }
    AcceptRecord(head, &m_result);
    m_offset += head.size;
    return Step::kNext;
}

FileScan::Step FileScan::TestRecord(const TRecordHead& head) {
    switch (CheckRecord(m_result, head)) {
        case RecordFault::kNone:
            return Step::kNext;
        case RecordFault::kSizesDiffer:
            LOG_SCAN_END("Found rec with size %u, but data size %u at offset %I64d", u32{head.size},
                         u32{head.dataSize}, m_offset);
            break;
        case RecordFault::kBelowCommitted:
            LOG_SCAN_END("Found rec with rev (%I64d) less than lastCommitted at offset %I64d",
                         i64{head.rev}, m_offset);
            break;
        case RecordFault::kDoesNotRise:
            // The wording is what hosts know; the fault is a revision that does not rise.
            LOG_SCAN_END("Found rec with rev (%I64d) greater than prev (%I64d) at offset %I64d",
                         i64{head.rev}, m_result.prevRecRev, m_offset);
            break;
    }
    return Step::kStop;
}

FileScan::Step FileScan::TakeCommit() {
    if (Step step = Need(kCommitBlockSize); step != Step::kNext) {
        return step;
    }
    const auto block = LoadUnaligned<TCommitBlock>(Here());
    if (Step step = TestCommit(block); step != Step::kNext) {
        return step;
    }
    if (ResultCode rc = m_callbacks.commit(m_callbacks.ctx, block.clearRev, block.commitRev);
        rc != RC_OK) {
        return Fail(rc);
    }
    AcceptCommit(block, m_offset, &m_result);
    m_result.lastCommit = block;
    const i64 itemsBegan = m_result.validCommitOffset + kCommitBlockSize;
    if (m_offset != kFirstCommitOffset && m_offset != itemsBegan) {
        m_result.closingOffset = m_offset;
        m_result.closing = block;
    }
    m_result.validCommitOffset = m_offset;
    m_offset += kCommitBlockSize;
    return m_offset < m_extent.enough ? Step::kNext : Step::kStop;
}

FileScan::Step FileScan::TestCommit(const TCommitBlock& block) {
    switch (CheckCommit(m_result, block)) {
        case CommitFault::kNone:
            return Step::kNext;
        case CommitFault::kWrongLink:
            LOG_SCAN_END("Commit block consistency sequence is broken at offset %I64d", m_offset);
            break;
        case CommitFault::kClearRevFalls:
            LOG_SCAN_END(
                "Found commit block at offset %I64d with clearRev (%I64d) less than expected",
                m_offset, i64{block.clearRev});
            break;
        case CommitFault::kBelowRecord:
            LOG_SCAN_END(
                "Found commit block at offset %I64d with commitRev (%I64d) less than recRev "
                "(%I64d)",
                m_offset, i64{block.commitRev}, m_result.prevRecRev);
            break;
    }
    return Step::kStop;
}

ResultCode FileScan::Finish() {
    if (!m_result.commitFound) {
        LOG_ERROR_CODE(RC_FILE_CORRUPT, kLogStorage, "First commit block is not found");
        if (m_result.fromHint) {
            LOG_WARNING(kLogStorage, "Try to delete index file");
        }
        return RC_FILE_CORRUPT;
    }
    assert(m_result.validCommitOffset >= kFirstCommitOffset);
    m_result.stopOffset = m_offset;
    m_result.stopInUse = Left() >= kSignatureSize && AnyNonZero(Here(), kSignatureSize);
    if (LookAtTail() == Step::kFail) {
        return m_failure;
    }
    LOG_INFO(
        kLogStorage, "Min rev: %I64d, max rev: %I64d, valid commit offset %I64d, prevRecRev %I64d",
        m_result.clearRev, m_result.lastCommitted, m_result.validCommitOffset, m_result.prevRecRev);
    return RC_OK;
}

// A power cut may leave zeros where data was lost and live-looking items behind them, so what is
// not looked at counts as in use.
FileScan::Step FileScan::LookAtTail() {
    m_result.tailInUse = m_offset != m_result.validCommitOffset + kCommitBlockSize;
    const i64 far = m_extent.isLive ? m_offset : m_offset + i64{kBufferSize};
    const i64 goal = std::min(far, m_extent.fileSize);
    while (!m_result.tailInUse) {
        m_result.tailInUse = AnyNonZero(Here(), Left());
        m_offset += Left();
        if (m_offset >= goal) {
            break;
        }
        if (Step step = Read(static_cast<u32>(std::min<i64>(goal - m_offset, kReadSize)));
            step != Step::kNext) {
            return step;
        }
        if (Left() == 0) {
            break;
        }
    }
    m_result.tailInUse = m_result.tailInUse || m_offset < m_extent.fileSize;
    return Step::kNext;
}

}  // namespace k9erepl
