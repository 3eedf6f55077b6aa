// Loads a read-only storage (setting read_only) while another process may write its file. Load may
// be called any number of times: each load goes on where the one before ended, or starts anew when
// the path leads to other content. The storage object makes one loader for each call of Load.
#ifndef K9EREPL_ENGINE_LIVE_LOADER_H
#define K9EREPL_ENGINE_LIVE_LOADER_H

#include <string>

#include "engine/client_marks.h"
#include "engine/loader.h"
#include "engine/storage_status.h"
#include "platform/int_types.h"
#include "solid/solid_storage.h"
#include "support/result.h"

namespace k9erepl {

// Lives as long as one load; the storage's lock is held all the time. The writer is not asked and
// never waits: the load reads, checks that what it read is still the content of the file, and tries
// again if it is not.
class LiveLoader {
  public:
    // `connStr` and the other arguments outlive this object. `loader` does the reading.
    LiveLoader(Loader& loader, const std::string& connStr, StorageStatus& status,
               CSolidStorage& file, ClientMarks& marks)
        : m_loader(loader), m_connStr(connStr), m_status(status), m_file(file), m_marks(marks) {}
    LiveLoader(const LiveLoader&) = delete;
    LiveLoader& operator=(const LiveLoader&) = delete;

    // See K9eReplStorageLoad. When the file cannot be opened anew, what was loaded before stays;
    // after any other failure nothing does, and the storage is Closed.
    // Errors, logged: kContentChanged when the file changed during each of many attempts;
    // RC_NO_MEMORY; those of CSolidStorage::Refresh and of Loader. No walk may be under way.
    // REQUIRES: the storage is not Broken.
    [[nodiscard]] ResultCode Load();

  private:
    // One attempt. Returns kContentChanged when the file changed meanwhile.
    [[nodiscard]] ResultCode LoadOnce(bool* loaded);

    // All of these outlive the loader.
    Loader& m_loader;
    // Only for log lines.
    const std::string& m_connStr;
    StorageStatus& m_status;
    CSolidStorage& m_file;
    ClientMarks& m_marks;
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_LIVE_LOADER_H
