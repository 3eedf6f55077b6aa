// The two numbers that a storage keeps for its client in the header of the storage file: the life
// number and the revision mark. The storage object owns one. A clear that starts the file over
// writes both into it again; a truncation sets both to 0.
#ifndef K9EREPL_ENGINE_CLIENT_MARKS_H
#define K9EREPL_ENGINE_CLIENT_MARKS_H

#include "platform/int_types.h"
#include "solid/solid_storage.h"
#include "support/result.h"

namespace k9erepl {

// Holds a copy of both numbers, so reading them costs no file access. The storage itself does
// nothing with either. Guarded by the storage's lock.
class ClientMarks {
  public:
    explicit ClientMarks(CSolidStorage& file) : m_file(file) {}
    ClientMarks(const ClientMarks&) = delete;
    ClientMarks& operator=(const ClientMarks&) = delete;

    // 0 in a new storage and after a truncation.
    u32 Lifenum() const { return m_lifenum; }
    // The revision mark, which a clear of mode `mark` sets; 0 in a new storage and after a
    // truncation.
    i64 ClearOldRev() const { return m_clearOldRev; }

    // Both write to the file first, if one is open, without flushing it to the disk. A failure is
    // logged and returned, and the number stays as it was.
    [[nodiscard]] ResultCode SetLifenum(u32 lifenum);
    [[nodiscard]] ResultCode SetClearOldRev(i64 rev);

    // Reads both numbers from the file that was just opened. A failure is logged with `connStr`.
    // REQUIRES: the file is open.
    [[nodiscard]] ResultCode Read(const char* connStr);
    // Reads both from a file that another process may be writing, and retries until they hold
    // still.
    // Errors: as CSolidStorage::ReadMarks.
    [[nodiscard]] ResultCode ReadLive() { return m_file.ReadMarks(&m_lifenum, &m_clearOldRev); }
    // Sets both to 0 in memory only; the file stays as it is.
    void Reset();

  private:
    // Lets the tests look inside.
    friend struct StorageAccess;

    CSolidStorage& m_file;
    u32 m_lifenum = 0;      // any number; 0: never set
    i64 m_clearOldRev = 0;  // a revision; 0: never set
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_CLIENT_MARKS_H
