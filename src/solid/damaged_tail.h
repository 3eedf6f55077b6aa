// Damage in the middle of the storage file: notices it at the end of a load, and keeps a copy of
// what lies behind it before the next write makes that zero. The loads, the check of the whole file
// and everything that writes use it. docs/storage-file.md tells damage from a torn end.
#ifndef K9EREPL_SOLID_DAMAGED_TAIL_H
#define K9EREPL_SOLID_DAMAGED_TAIL_H

#include "platform/int_types.h"
#include "solid/file_scan.h"
#include "solid/live_file.h"
#include "solid/load_scan.h"
#include "solid/storage_file.h"
#include "support/result.h"

namespace k9erepl {

// What is done about damage in the middle of the file: only log it, or also keep a copy of what
// lies behind it.
enum class TailCare { kReport, kKeepCopy };

// CSolidStorage owns one and calls it under the storage's lock. The arguments outlive it.
class DamagedTail {
  public:
    DamagedTail(StorageFile& file, LiveFile& live, const LoadScan& load)
        : m_file(file), m_live(live), m_load(load) {}

    // To be called when a load has succeeded; see CSolidStorage::KeepTailIfDamaged.
    void KeepIfDamaged(TailCare care);
    // To be called before the bytes behind the write position change. Does nothing unless a load
    // could not look at the tail or could not keep it; then it tries once more. A failure is
    // logged, and the write goes on.
    void KeepBeforeWriting() {
        if (m_unlooked || m_unkept) [[unlikely]] {
            KeepAfterAll();
        }
    }

    // *damaged receives whether committed data goes on behind the place where a scan ended; that is
    // logged as an error.
    // Errors, logged: RC_NO_MEMORY and those of reading. *damaged is false then, and the load goes
    // on as if the tail was sound.
    [[nodiscard]] ResultCode LookBehind(const FileScan::Result& end, bool* damaged);

    // To be called when the file is closed.
    void Reset();

  private:
    // Copies everything behind the last valid commit block. False after a failure, which is logged.
    bool Keep();
    // The second attempt of KeepBeforeWriting.
    void KeepAfterAll();

    StorageFile& m_file;
    LiveFile& m_live;
    const LoadScan& m_load;
    // There may be a damaged tail: looking for it failed at the load. Never set with kReport.
    bool m_unlooked = false;
    // A damaged tail is in the file only: copying it failed at the load. Never set with kReport.
    bool m_unkept = false;
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_DAMAGED_TAIL_H
