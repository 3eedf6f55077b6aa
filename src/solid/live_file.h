// Reading a storage file that another process writes: loading it, loading on, and noticing that its
// content is not the one that was loaded. The loads, the enumeration and the check of the whole
// file use it when the file is open read-only.
#ifndef K9EREPL_SOLID_LIVE_FILE_H
#define K9EREPL_SOLID_LIVE_FILE_H

#include "format/storage_file_format.h"
#include "platform/int_types.h"
#include "solid/content_mark.h"
#include "solid/file_scan.h"
#include "solid/storage_file.h"

namespace k9erepl {

// A read beside a write may see any mix of old and new pages. What the writer puts in front of a
// commit block is in the file before the block, so a scan takes two looks: the first finds a commit
// block, the second, which begins afterwards, reads what lies in front of it and hands it out.
class LiveFile {
  public:
    // Where a scan begins: at `offset`, or behind what an earlier scan accepted.
    struct Start {
        i64 offset = kFirstCommitOffset;
        bool fromHint = false;  // that need not be the file's first commit block
        const FileScan::Result* resume = nullptr;
    };

    explicit LiveFile(StorageFile& file) : m_file(file) {}

    // Opens the file anew that the path leads to now. `loaded` is where the last load ended;
    // *goesOn receives whether the file holds what was loaded then.
    // Errors: as CSolidStorage::Open; what was loaded, and the handle on it, then stays.
    // REQUIRES: the file is open read-only.
    [[nodiscard]] u32 Refresh(const FileScan::Result& loaded, bool* goesOn);

    // Hands out what is committed, up to a commit block that ends at or behind `enough`. *result
    // receives where it ended; what an earlier scan left there is lost.
    // Errors: as FileScan::Run; kContentChanged when the writer took something back meanwhile.
    [[nodiscard]] u32 Scan(const FileScanCallbacks& callbacks, const Start& start, i64 enough,
                           FileScan::Result* result);
    // The scan for hosts: what is loaded, or before the first load what is committed now.
    [[nodiscard]] u32 ScanForHost(const FileScanCallbacks& callbacks,
                                  const FileScan::Result& loaded);

    // Whether the writer has committed more behind the end of a scan meanwhile.
    bool GoesOnBehind(const FileScan::Result& end);

    // From now on the content is the one that a scan has loaded: what it accepted is served.
    void MarkContent(const FileScan::Result& loaded);
    // RC_OK when everything that was read since the load began is the content that was loaded, or
    // the file is not read-only. Errors: as ContentMark::Check.
    [[nodiscard]] u32 CheckContent();
    // To be called between reading a piece of the file and handing it out. As CheckContent; logs
    // kContentChanged, and after any failure nothing that was read counts.
    [[nodiscard]] u32 CheckEnumerated();

    // The fields of the header that belong to the client, as one moment had them.
    // Errors: RC_SYSTEM_ERROR; kContentChanged when they never stand still.
    [[nodiscard]] u32 ReadMarks(u32* lifenum, i64* clearOldRev);

    // To be called when the file is closed.
    void Reset() { m_content = {}; }

  private:
    [[nodiscard]] u32 LookAhead(const Start& start, i64 enough, FileScan::Result* found);
    [[nodiscard]] u32 HandOut(const FileScanCallbacks& callbacks, const Start& start,
                              const FileScan::Result& ahead, FileScan::Result* result);

    StorageFile& m_file;
    ContentMark m_content;  // of what is loaded or being loaded; not taken unless read-only
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_LIVE_FILE_H
