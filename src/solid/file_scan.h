// The walk of the load scan: reads a storage file in large pieces, applies the rules of the format
// to each item in file order and hands out what it accepts. The load scan, the scan for hosts
// and the check of the whole file run it.
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

namespace k9erepl {

// Where a scan hands out what it accepts; a non-zero result ends it.
struct FileScanCallbacks {
    K9eReplScanRecordCb record;
    K9eReplScanCommitCb commit;
    void* ctx;
};

// Takes items by the rules of format/stream_rules.h. The first that breaks one, or is neither
// record nor commit block, or does not fit the file or the buffer, ends the scan: what the last
// accepted commit block closes is the valid data.
class FileScan {
  public:
    static constexpr u32 kBufferSize = kFileRecordSizeMax;
    // The first read of a live file, which may have little that is new; each further one doubles.
    static constexpr u32 kFirstLiveRead = 64 * 1024;

    // Where the scan ended. Valid after Run returned RC_OK.
    struct Result : StreamEnd {
        i64 validCommitOffset = 0;  // of the last accepted commit block
        TCommitBlock lastCommit{};  // that block
        i64 closingOffset = 0;      // of the one that closes the last record; 0: there is no record
        TCommitBlock closing{};     // that block
        bool tailInUse = false;  // behind the last accepted one, not every byte is known to be zero
        i64 stopOffset = 0;      // of the first item that was not accepted
        bool stopInUse = false;  // four bytes lie there, and not all are zero
    };

    // What is read: up to fileSize; what is taken as items: what begins before dataEnd. The scan
    // ends behind the first commit block that ends at or behind `enough`.
    struct Extent {
        i64 fileSize;
        i64 dataEnd = std::numeric_limits<i64>::max();
        i64 enough = std::numeric_limits<i64>::max();
        // Another process writes the file: what ends the scan is no reason for a warning.
        bool isLive = false;
        // Looked at after each read, unless null; kContentChanged ends the scan.
        const ContentMark* mark = nullptr;
    };

    FileScan(platform::TrackedFile& file, const Extent& extent, const FileScanCallbacks& callbacks);

    // Scans from `startOffset`; `fromHint` says that it need not be the file's first commit block.
    // Errors: RC_FILE_CORRUPT, RC_SYSTEM_ERROR, RC_NO_MEMORY, RC_SHORT_READ when the system gives
    // fewer bytes than the file has, a callback's result.
    [[nodiscard]] u32 Run(i64 startOffset, bool fromHint);
    // Scans on from behind the last commit block of an earlier scan. Errors: as Run.
    [[nodiscard]] u32 Resume(const Result& from);

    const Result& GetResult() const { return m_result; }

  private:
    // What an item came to.
    enum class [[nodiscard]] Step{kNext, kStop, kFail};

    [[nodiscard]] u32 RunFrom(i64 offset);
    Step Need(u32 size);
    Step Fill(u32 needed);
    Step CheckEnd(i64 reached);
    Step TakeItem();
    Step TakeRecord();
    Step TakeCommit();
    Step TestRecord(const TRecordHead& head);
    Step TestCommit(const TCommitBlock& block);
    Step Fail(u32 rc);
    [[nodiscard]] u32 Finish();

    const u8* Here() const {
        assert(m_offset >= m_bufferOffset && m_offset <= m_bufferOffset + m_bufferLength);
        return m_buffer.get() + (m_offset - m_bufferOffset);
    }
    u32 Left() const { return static_cast<u32>(m_bufferOffset + m_bufferLength - m_offset); }

    platform::TrackedFile& m_file;
    const Extent m_extent;
    const FileScanCallbacks m_callbacks;

    platform::MemoryBuffer m_buffer;
    i64 m_bufferOffset = 0;        // file offset of the buffer's first byte
    u32 m_bufferLength = 0;        // valid bytes; m_offset never lies outside them
    u32 m_readSize = kBufferSize;  // of the next read, unless an item needs more

    i64 m_offset = 0;       // file offset of the item being looked at
    u32 m_failure = RC_OK;  // the code to return after kFail
    Result m_result;
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_FILE_SCAN_H
