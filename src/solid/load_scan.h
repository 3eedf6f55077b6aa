// The load scan of the storage file: decides where it begins, how it is read, and what the place
// where it ended means for the write position. The loads run it, alone on the file or beside a
// writer.
#ifndef K9EREPL_SOLID_LOAD_SCAN_H
#define K9EREPL_SOLID_LOAD_SCAN_H

#include "format/storage_file_format.h"
#include "platform/int_types.h"
#include "solid/file_scan.h"
#include "solid/live_file.h"
#include "solid/storage_file.h"
#include "support/result.h"

namespace k9erepl {

// CSolidStorage owns one and calls it under the storage's lock. The arguments outlive it.
class LoadScan {
  public:
    LoadScan(StorageFile& file, LiveFile& live) : m_file(file), m_live(live) {}

    // See CSolidStorage::ScanFileFrom and ScanOn.
    [[nodiscard]] ResultCode ScanFrom(const FileScanCallbacks& callbacks, i64 startOffset);
    [[nodiscard]] ResultCode ScanOn(const FileScanCallbacks& callbacks);

    // Makes the end of a scan the write position, and its last commit block the file's last one.
    // Errors: RC_SYSTEM_ERROR; everything is then as it was.
    // REQUIRES: the scan has found a commit block.
    [[nodiscard]] ResultCode TakeEnd(const FileScan::Result& end);
    // Where the scan ended that placed the write position. Before the first one, commitFound is
    // false.
    const FileScan::Result& End() const { return m_end; }

    // To be called when the file is closed.
    void Reset() { m_end = {}; }

    // True when a scan from `startOffset` need not begin with the file's first commit block.
    static bool IsHint(i64 startOffset) {
        return startOffset != 0 && startOffset != kFirstCommitOffset &&
               startOffset != kFirstItemOffset;
    }

  private:
    // The scan of a file that another process writes.
    [[nodiscard]] ResultCode LoadLive(const FileScanCallbacks& callbacks,
                                      const LiveFile::Start& start);

    StorageFile& m_file;
    LiveFile& m_live;
    // See End().
    FileScan::Result m_end;
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_LOAD_SCAN_H
