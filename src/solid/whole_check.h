// The check of the whole storage file that a load makes with the setting check. It finds damage
// that an index lets the load pass over, before anything is written behind it.
#ifndef K9EREPL_SOLID_WHOLE_CHECK_H
#define K9EREPL_SOLID_WHOLE_CHECK_H

#include "platform/int_types.h"
#include "solid/damaged_tail.h"
#include "solid/file_scan.h"
#include "solid/live_file.h"
#include "solid/load_scan.h"
#include "solid/storage_file.h"
#include "support/result.h"

namespace k9erepl {

// Lives as long as one check, under the storage's lock; changes nothing. The arguments outlive it.
class WholeCheck {
  public:
    WholeCheck(StorageFile& file, LiveFile& live, const LoadScan& load, DamagedTail& tail)
        : m_file(file), m_live(live), m_load(load), m_tail(tail) {}

    // See CSolidStorage::CheckWhole. REQUIRES: a load scan has ended; loadedFrom is 0 or at least
    // 1024.
    [[nodiscard]] ResultCode Run(i64 loadedFrom);

  private:
    // Scans the file from its beginning; *whole receives where that ended. Errors: as
    // FileScan::Run.
    [[nodiscard]] ResultCode ScanWhole(FileScan::Result* whole);

    StorageFile& m_file;
    LiveFile& m_live;
    const LoadScan& m_load;
    DamagedTail& m_tail;
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_WHOLE_CHECK_H
