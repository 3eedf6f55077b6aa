// Damage in the middle of the storage file: noticing it at the end of a load, and keeping what lies
// behind it before the next write makes that zero. The loads, the check of the whole file and
// everything that writes use it.
#ifndef K9EREPL_SOLID_DAMAGED_TAIL_H
#define K9EREPL_SOLID_DAMAGED_TAIL_H

#include "platform/int_types.h"
#include "solid/file_scan.h"
#include "solid/live_file.h"
#include "solid/load_scan.h"
#include "solid/storage_file.h"

namespace k9erepl {

// What is done about damage in the middle of the file.
enum class TailCare { kReport, kKeepCopy };

class DamagedTail {
  public:
    DamagedTail(StorageFile& file, LiveFile& live, const LoadScan& load)
        : m_file(file), m_live(live), m_load(load) {}

    // To be called when a load has succeeded; as CSolidStorage::KeepTailIfDamaged.
    void KeepIfDamaged(TailCare care);
    // To be called before the bytes behind the write position change.
    void KeepBeforeWriting() {
        if (m_unlooked || m_unkept) [[unlikely]] {
            KeepAfterAll();
        }
    }

    // Whether what lies behind the end of a scan goes on, which is logged as an error.
    // Errors: those of reading; *damaged is then false, and the load goes on as it would.
    [[nodiscard]] u32 LookBehind(const FileScan::Result& end, bool* damaged);

    // To be called when the file is closed.
    void Reset();

  private:
    bool Keep();
    void KeepAfterAll();

    StorageFile& m_file;
    LiveFile& m_live;
    const LoadScan& m_load;
    bool m_unlooked = false;  // there may be a damaged tail: looking for it failed
    bool m_unkept = false;    // a damaged tail is in the file only
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_DAMAGED_TAIL_H
