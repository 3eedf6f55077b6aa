// Loading a read-only storage, beside its writer: any number of times, each going on from where the
// last one stood, or starting anew when the path leads to other content. The storage object makes
// one for each call of Load.
#ifndef K9EREPL_ENGINE_LIVE_LOADER_H
#define K9EREPL_ENGINE_LIVE_LOADER_H

#include <string>

#include "engine/client_marks.h"
#include "engine/loader.h"
#include "engine/storage_status.h"
#include "platform/int_types.h"
#include "solid/solid_storage.h"

namespace k9erepl {

// Lives as long as one load. The storage's lock is held all the time.
class LiveLoader {
  public:
    // `connStr` must outlive this object.
    LiveLoader(Loader& loader, const std::string& connStr, StorageStatus& status,
               CSolidStorage& file, ClientMarks& marks)
        : m_loader(loader), m_connStr(connStr), m_status(status), m_file(file), m_marks(marks) {}
    LiveLoader(const LiveLoader&) = delete;
    LiveLoader& operator=(const LiveLoader&) = delete;

    // See K9eReplStorageLoad. When the file cannot be opened anew, an earlier load stays; after any
    // other failure nothing does. No walk may be under way.
    // REQUIRES: the storage is not Broken.
    [[nodiscard]] u32 Load();

  private:
    [[nodiscard]] u32 LoadOnce(bool* loaded);

    Loader& m_loader;
    const std::string& m_connStr;
    StorageStatus& m_status;
    CSolidStorage& m_file;
    ClientMarks& m_marks;
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_LIVE_LOADER_H
