// The load scan of the storage file: where it begins, how it is read, and what its end makes of the
// write position. The storage file's loads run it, beside a writer and alone.
#ifndef K9EREPL_SOLID_LOAD_SCAN_H
#define K9EREPL_SOLID_LOAD_SCAN_H

#include "format/storage_file_format.h"
#include "platform/int_types.h"
#include "solid/file_scan.h"
#include "solid/live_file.h"
#include "solid/storage_file.h"

namespace k9erepl {

class LoadScan {
  public:
    LoadScan(StorageFile& file, LiveFile& live) : m_file(file), m_live(live) {}

    // As CSolidStorage::ScanFileFrom and ScanOn.
    [[nodiscard]] u32 ScanFrom(const FileScanCallbacks& callbacks, i64 startOffset);
    [[nodiscard]] u32 ScanOn(const FileScanCallbacks& callbacks);

    // The end of a scan becomes the write position and the last commit block.
    // Errors: RC_SYSTEM_ERROR; everything is then as it was.
    // REQUIRES: the scan has found a commit block.
    [[nodiscard]] u32 TakeEnd(const FileScan::Result& end);
    // Where the scan ended that placed the write position; before one did, commitFound is false.
    const FileScan::Result& End() const { return m_end; }

    // To be called when the file is closed.
    void Reset() { m_end = {}; }

    // Whether a scan from there need not begin with the file's first commit block.
    static bool IsHint(i64 startOffset) {
        return startOffset != 0 && startOffset != kFirstCommitOffset &&
               startOffset != kFirstItemOffset;
    }

  private:
    [[nodiscard]] u32 LoadLive(const FileScanCallbacks& callbacks, const LiveFile::Start& start);

    StorageFile& m_file;
    LiveFile& m_live;
    FileScan::Result m_end;
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_LOAD_SCAN_H
