// Loading: reading the storage file back into memory blocks, from where the index file allows. The
// storage object makes one for each call of Load; a read-only storage loads through
// live_loader.h.
#ifndef K9EREPL_ENGINE_LOADER_H
#define K9EREPL_ENGINE_LOADER_H

#include <string>

#include "engine/block_store.h"
#include "engine/clearer.h"
#include "engine/index_keeper.h"
#include "engine/load_pass.h"
#include "engine/load_plan.h"
#include "engine/open_settings.h"
#include "engine/storage_status.h"
#include "index/index_file.h"
#include "platform/int_types.h"
#include "solid/solid_storage.h"

namespace k9erepl {

// Lives as long as one load. The storage's lock is held all the time.
class Loader {
  public:
    // `connStr` must outlive this object. `clearer` truncates a storage in memory.
    Loader(const OpenSettings& settings, const std::string& connStr, StorageStatus& status,
           BlockStore& blocks, CSolidStorage& file, IndexKeeper& index, Clearer& clearer)
        : m_settings(settings),
          m_connStr(connStr),
          m_status(status),
          m_blocks(blocks),
          m_file(file),
          m_index(index),
          m_clearer(clearer),
          m_pass(settings, blocks) {}
    Loader(const Loader&) = delete;
    Loader& operator=(const Loader&) = delete;

    // See K9eReplStorageLoad. After a failure nothing of the load stays, and it may be tried again.
    // REQUIRES: the storage is Closed.
    [[nodiscard]] u32 Load();

    // --- The steps of a load that may be repeated, for a read-only storage. May throw
    // std::bad_alloc. What a step that failed has loaded stays until Abandon.
    // Forgets what is loaded and loads everything.
    [[nodiscard]] u32 LoadAnew();
    // Loads what follows what is loaded. REQUIRES: the file was opened anew and goes on.
    [[nodiscard]] u32 LoadOn();
    // Nothing of a load that failed half-way stays: the storage is Closed and empty.
    void Abandon();

  private:
    [[nodiscard]] u32 LoadOnce(const IndexFileContent& index);
    [[nodiscard]] u32 LoadWithoutOpenFile(const IndexFileContent& index);
    [[nodiscard]] u32 LoadFromOpenFile(const IndexFileContent& index);
    void Plan(CSolidStorage& file, const IndexFileContent& index);
    [[nodiscard]] u32 RunPass(CSolidStorage& file);
    bool LoadedAllThatIsKept(CSolidStorage& file) const;
    [[nodiscard]] u32 CheckAllOf(CSolidStorage& file);
    [[nodiscard]] u32 FinishFromOpenFile(i64 lowestRev);
    [[nodiscard]] u32 Finish(i64 nextRevOfFile, CSolidStorage* file);
    [[nodiscard]] u32 CutCleared(CSolidStorage& file);

    const OpenSettings& m_settings;
    const std::string& m_connStr;
    StorageStatus& m_status;
    BlockStore& m_blocks;
    CSolidStorage& m_file;
    IndexKeeper& m_index;
    Clearer& m_clearer;

    LoadPass m_pass;
    LoadPlan m_plan;  // what is read; uses the index unless that was dropped on the way
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_LOADER_H
