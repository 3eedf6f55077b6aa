// Reads a storage file that another process writes: loads it, goes on loading, and notices when its
// content is not the one that was loaded. The loads, the enumeration and the check of the whole
// file use it when the file is open read-only (setting read_only).
#ifndef K9EREPL_SOLID_LIVE_FILE_H
#define K9EREPL_SOLID_LIVE_FILE_H

#include "format/storage_file_format.h"
#include "platform/int_types.h"
#include "solid/content_mark.h"
#include "solid/file_scan.h"
#include "solid/storage_file.h"
#include "support/result.h"

namespace k9erepl {

// A read beside a write may see any mix of old and new pages. But what the writer puts in front of
// a commit block is in the file before the block. So a scan looks twice: the first look finds a
// commit block, and the second, which begins afterwards, reads what lies in front of it and hands
// it out.
class LiveFile {
  public:
    // Where a scan begins: at `offset`, or behind what an earlier scan accepted.
    struct Start {
        i64 offset = kFirstCommitOffset;  // ignored when the caller gives `resume`
        bool fromHint = false;            // `offset` need not be the file's first commit block
        // The earlier scan's result; null: there was none.
        const FileScan::Result* resume = nullptr;
    };

    // `file` outlives this object.
    explicit LiveFile(StorageFile& file) : m_file(file) {}

    // Opens the file anew that the path leads to now. `loaded` is where the last load ended;
    // *goesOn receives whether the file holds what was loaded then, perhaps with more behind it.
    // Errors: as CSolidStorage::Open; what was loaded, and the handle on it, stays then.
    // REQUIRES: the file is open read-only.
    [[nodiscard]] ResultCode Refresh(const FileScan::Result& loaded, bool* goesOn);

    // Hands out what is committed, up to the first commit block that ends at or behind `enough`.
    // *result receives where it ended; what an earlier scan left there is lost.
    // Errors: as FileScan::Run; kContentChanged when the writer took something back meanwhile.
    // REQUIRES: the file is open read-only.
    [[nodiscard]] ResultCode Scan(const FileScanCallbacks& callbacks, const Start& start,
                                  i64 enough, FileScan::Result* result);
    // The scan for hosts: hands out what is loaded, or before the first load what is committed now.
    [[nodiscard]] ResultCode ScanForHost(const FileScanCallbacks& callbacks,
                                         const FileScan::Result& loaded);

    // True when the writer has committed more behind the end of a scan meanwhile.
    bool GoesOnBehind(const FileScan::Result& end);

    // From now on the content of the file is the one that a scan has loaded: what it accepted is
    // served.
    // REQUIRES: the scan has found a commit block.
    void MarkContent(const FileScan::Result& loaded);
    // RC_OK when everything that was read since the load began is the content that was loaded, or
    // when the file is not read-only.
    // Errors: as ContentMark::Check.
    [[nodiscard]] ResultCode CheckContent();
    // To be called between reading a piece of the file and handing it out. Does what CheckContent
    // does, and logs kContentChanged. After any failure, nothing in the read buffers is used any
    // more.
    [[nodiscard]] ResultCode CheckEnumerated();

    // Reads the fields of the header that belong to the client, both from one moment.
    // Errors: RC_SYSTEM_ERROR; kContentChanged when they change at every reading.
    [[nodiscard]] ResultCode ReadMarks(u32* lifenum, i64* clearOldRev);

    // To be called when the file is closed.
    void Reset() { m_content = {}; }

  private:
    // The first look: *found receives where a scan up to `enough` ends. Hands nothing out.
    [[nodiscard]] ResultCode LookAhead(const Start& start, i64 enough, FileScan::Result* found);
    // The second look: hands out what the first one, `ahead`, found to be committed.
    [[nodiscard]] ResultCode HandOut(const FileScanCallbacks& callbacks, const Start& start,
                                     const FileScan::Result& ahead, FileScan::Result* result);

    StorageFile& m_file;
    // Of what is loaded or is being loaded; not taken before the first load, nor in a file that has
    // a writer.
    ContentMark m_content;
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_LIVE_FILE_H
