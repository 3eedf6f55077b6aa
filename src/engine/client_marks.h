// The two numbers that a storage keeps for its client, in the header of the storage file: the life
// number and the revision mark. The storage object owns one; truncations and clears write both into
// a file that starts over.
#ifndef K9EREPL_ENGINE_CLIENT_MARKS_H
#define K9EREPL_ENGINE_CLIENT_MARKS_H

#include "platform/int_types.h"
#include "solid/solid_storage.h"

namespace k9erepl {

// Guarded by the storage's lock.
class ClientMarks {
  public:
    explicit ClientMarks(CSolidStorage& file) : m_file(file) {}
    ClientMarks(const ClientMarks&) = delete;
    ClientMarks& operator=(const ClientMarks&) = delete;

    u32 Lifenum() const { return m_lifenum; }
    i64 ClearOldRev() const { return m_clearOldRev; }

    // Into the file first, if one is open: a failure, which is logged, changes nothing.
    [[nodiscard]] u32 SetLifenum(u32 lifenum);
    [[nodiscard]] u32 SetClearOldRev(i64 rev);

    // Reads both from the file that was just opened. Failures are logged with `connStr`.
    [[nodiscard]] u32 Read(const char* connStr);
    // The same from a file that another process may be writing. Errors: CSolidStorage::ReadMarks.
    [[nodiscard]] u32 ReadLive() { return m_file.ReadMarks(&m_lifenum, &m_clearOldRev); }
    void Reset();

  private:
    friend struct StorageAccess;  // the tests' eyes

    CSolidStorage& m_file;
    u32 m_lifenum = 0;
    i64 m_clearOldRev = 0;  // the revision mark; the storage itself does nothing with it
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_CLIENT_MARKS_H
