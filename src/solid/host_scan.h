// The scan of the storage file for hosts: IK9eReplLLStorage::ScanFile of the object that
// K9eReplStorageGetLLStorage hands out. A host may call it at any time; the storage runs it as one
// of its calls.
#ifndef K9EREPL_SOLID_HOST_SCAN_H
#define K9EREPL_SOLID_HOST_SCAN_H

#include "platform/int_types.h"
#include "solid/file_scan.h"
#include "solid/live_file.h"
#include "solid/load_scan.h"
#include "solid/storage_file.h"
#include "support/result.h"

namespace k9erepl {

// CSolidStorage makes one for each call. The arguments outlive it.
class HostScan {
  public:
    HostScan(StorageFile& file, LiveFile& live, LoadScan& load)
        : m_file(file), m_live(live), m_load(load) {}

    // See CSolidStorage::ScanFile. Called under the storage's lock.
    [[nodiscard]] ResultCode Run(const FileScanCallbacks& callbacks);

  private:
    StorageFile& m_file;
    LiveFile& m_live;
    LoadScan& m_load;
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_HOST_SCAN_H
