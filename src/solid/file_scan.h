// The walk of the load scan: reads a storage file in large pieces, applies the rules of the format
// to each item in file order, and hands out the items that it accepts. The load scan, the scan for
// hosts and the check of the whole file run it. docs/storage-file.md ("The reader at loading")
// gives the steps and their log lines.
#ifndef K9EREPL_SOLID_FILE_SCAN_H
#define K9EREPL_SOLID_FILE_SCAN_H

#include <k9erepl/storage_interfaces.h>

#include <cassert>
#include <limits>

#include "format/storage_file_format.h"
#include "format/stream_rules.h"
#include "platform/int_types.h"
#include "platform/memory.h"
#include "platform/tracked_file.h"
#include "solid/content_mark.h"
#include "support/result.h"

namespace k9erepl {

// Where a scan hands out what it accepts. A result other than RC_OK ends the scan and becomes its
// result. A record is valid during the call.
struct FileScanCallbacks {
    K9eReplScanRecordCb record;  // called for each record; not null
    K9eReplScanCommitCb commit;  // called for each commit block; not null
    void* ctx;                   // handed to both, never looked at
};

// Takes items by the rules of format/stream_rules.h. The scan ends at the first item that breaks
// one, or is neither record nor commit block, or does not fit the file or the buffer. Valid data is
// what the last accepted commit block closes.
//
// One object scans once. It allocates its buffer when it begins and frees it with the object.
class FileScan {
  public:
    // Bytes of the buffer, and so of the largest record that can be read: 10 MiB.
    static constexpr u32 kBufferSize = kFileRecordSizeMax;
    // Bytes of a read: few enough that the items are still in the processor's cache when they are
    // taken, and that little of the buffer is ever touched.
    static constexpr u32 kReadSize = 512 * 1024;
    // The first read of a live file, which may have little that is new; each further read doubles
    // up to kReadSize.
    static constexpr u32 kFirstLiveRead = 64 * 1024;
    // After an item that did not fit, a read takes so many of its size, up to the whole buffer. An
    // item at the end of a read is read twice, so reads must be larger than items.
    static constexpr u32 kItemsOfARead = 8;

    // Where the scan ended. Valid after Run or Resume has returned RC_OK. Offsets are file offsets.
    struct Result : StreamEnd {
        // Where the last accepted commit block begins, and a copy of it.
        i64 validCommitOffset = 0;
        TCommitBlock lastCommit{};
        // The same for the commit block that closes the last record; 0: there is no record.
        i64 closingOffset = 0;
        TCommitBlock closing{};
        // Behind the last accepted commit block, not every byte is known to be zero. The scan looks
        // kBufferSize bytes far; in a live file, as far as the last read went.
        bool tailInUse = false;
        // Where the first item begins that was not accepted.
        i64 stopOffset = 0;
        // At stopOffset there are four bytes, and not all of them are zero.
        bool stopInUse = false;
    };

    // How far the scan goes, and how.
    struct Extent {
        // Nothing is read at or behind this offset.
        i64 fileSize;
        // Nothing that begins at or behind this offset is taken as an item.
        i64 dataEnd = std::numeric_limits<i64>::max();
        // The scan ends behind the first commit block that ends at or behind this offset.
        i64 enough = std::numeric_limits<i64>::max();
        // Another process writes the file: the reason why the scan ends is no cause for a warning.
        bool isLive = false;
        // Checked after each read, unless null; kContentChanged ends the scan. Outlives the scan.
        const ContentMark* mark = nullptr;
    };

    // `file` and what `extent` and `callbacks` refer to outlive this object.
    FileScan(platform::TrackedFile& file, const Extent& extent, const FileScanCallbacks& callbacks);

    // Scans from `startOffset`. `fromHint` is true when that need not be the file's first commit
    // block.
    // Errors: RC_FILE_CORRUPT, RC_SYSTEM_ERROR, RC_NO_MEMORY; RC_SHORT_READ when the system gives
    // fewer bytes than the file has; kContentChanged; a callback's result.
    // REQUIRES: startOffset is at least 1024.
    [[nodiscard]] ResultCode Run(i64 startOffset, bool fromHint);
    // Goes on behind the last commit block of an earlier scan. Errors: as Run.
    // REQUIRES: `from` has a commit block.
    [[nodiscard]] ResultCode Resume(const Result& from);

    // Complete only after Run or Resume has returned RC_OK.
    const Result& GetResult() const { return m_result; }

  private:
    // Says how the scan goes on after an item: with the next one, or not, or with m_failure as its
    // result.
    enum class [[nodiscard]] Step{kNext, kStop, kFail};

    // Takes item after item from `offset` on.
    [[nodiscard]] ResultCode RunFrom(i64 offset);
    Step Need(u32 size);
    // Reads again from the current offset on. REQUIRES: the buffer has fewer than `needed` bytes
    // there.
    Step Fill(u32 needed);
    // The bytes that the buffer is to have after a read that needs so many.
    u32 NextReadSize(u32 needed);
    // The buffer receives up to `size` bytes from the current offset on, fewer at the end of the
    // file.
    Step Read(u32 size);
    Step CheckEnd(i64 reached);
    // Hands out the records from the current offset on for as long as they lie wholly in the buffer
    // and break no rule. TakeItem looks at what comes then. Most records go this way, so it does no
    // more for one than a record needs that nothing is wrong with.
    Step TakeHeldRecords();
    // Checks the item at the current offset, hands it out and goes on behind it.
    Step TakeItem();
    Step TakeRecord();
    Step TakeCommit();
    // Both log the rule that the item breaks, if it breaks one.
    Step TestRecord(const TRecordHead& head);
    Step TestCommit(const TCommitBlock& block);
    // Remembers `rc`, the result of the scan.
    Step Fail(ResultCode rc);
    // Completes the result. RC_FILE_CORRUPT, logged, when no commit block was found; the errors of
    // reading.
    [[nodiscard]] ResultCode Finish();
    // Sets tailInUse to whether anything but zeros may lie from the current offset on, which it
    // moves. Errors: m_failure.
    Step LookAtTail();

    // The bytes at the current offset, and how many of them the buffer has.
    const u8* Here() const {
        assert(m_offset >= m_bufferOffset && m_offset <= m_bufferOffset + m_bufferLength);
        return m_buffer.get() + (m_offset - m_bufferOffset);
    }
    u32 Left() const { return static_cast<u32>(m_bufferOffset + m_bufferLength - m_offset); }

    platform::TrackedFile& m_file;
    const Extent m_extent;
    const FileScanCallbacks m_callbacks;

    // kBufferSize bytes; null before the scan begins.
    platform::MemoryBuffer m_buffer;
    // The file offset of the buffer's first byte.
    i64 m_bufferOffset = 0;
    // Valid bytes in the buffer; m_offset never lies outside them.
    u32 m_bufferLength = 0;
    // Bytes of the next read, unless an item needs more; at most kBufferSize.
    u32 m_readSize = kReadSize;

    // The file offset of the item being looked at.
    i64 m_offset = 0;
    // The code to return after kFail.
    ResultCode m_failure = RC_OK;
    Result m_result;
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_FILE_SCAN_H
