// Loading: reads the storage file back into memory blocks, from the place that the index file
// allows. The storage object makes one loader for each call of Load; a read-only storage loads
// through live_loader.h. docs/storage-file.md has the rules by which the file is read ("The reader
// at loading"), docs/index-file.md those by which the index is used.
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
#include "support/result.h"

namespace k9erepl {

// Lives as long as one load; the storage's lock is held all the time. An index may only save time:
// whenever it leads to an error or may have hidden records, the load starts over without it.
class Loader {
  public:
    // The arguments outlive this object. `clearer` truncates a storage that has no file.
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

    // See K9eReplStorageLoad. Success makes the storage Open. After a failure, which is logged,
    // nothing of the load stays, and it may be tried again.
    // REQUIRES: the storage is Closed.
    [[nodiscard]] ResultCode Load();

    // --- The steps of a load that may be repeated, for a read-only storage

    // Both may throw std::bad_alloc. What a step that failed has loaded stays until Abandon.
    //
    // Forgets what is loaded and loads everything.
    [[nodiscard]] ResultCode LoadAnew();
    // Loads what follows what is loaded.
    // REQUIRES: the storage is read-only; its file was opened anew and goes on.
    [[nodiscard]] ResultCode LoadOn();
    // Removes everything of a load that failed half-way: the storage is Closed and empty, and the
    // index thread is stopped.
    void Abandon();

  private:
    // One load with `index`, which is empty for a load without it.
    // REQUIRES: nothing is loaded.
    [[nodiscard]] ResultCode LoadOnce(const IndexFileContent& index);
    // For flush_mode=NoFlush: loads from a file that is opened for the time of the load alone, or
    // begins empty with ":memory:".
    [[nodiscard]] ResultCode LoadWithoutOpenFile(const IndexFileContent& index);
    // Loads from the storage's own file.
    [[nodiscard]] ResultCode LoadFromOpenFile(const IndexFileContent& index);
    // Fills m_plan from `index` if the index fits the file and passes the test; else leaves it
    // empty.
    void Plan(CSolidStorage& file, const IndexFileContent& index);
    // Scans `file` as m_plan says, and again from the beginning if the index misled the first scan.
    [[nodiscard]] ResultCode RunPass(CSolidStorage& file);
    // False when the file may hold records in front of the index's first entry that are not
    // cleared.
    // REQUIRES: m_plan uses the index.
    bool LoadedAllThatIsKept(CSolidStorage& file) const;
    // The check of the whole file with the setting check; without it, RC_OK. Errors: as
    // CSolidStorage::CheckWhole.
    [[nodiscard]] ResultCode CheckAllOf(CSolidStorage& file);
    // Ends a load from the storage's own file. `lowestRev` is the commitRev of the file's first
    // commit block.
    [[nodiscard]] ResultCode FinishFromOpenFile(i64 lowestRev);
    // Cuts what is not committed or was cleared, sets the next revision to at least
    // `nextRevOfFile`, starts the index thread, and makes the storage Open. `file` is null for an
    // empty storage.
    [[nodiscard]] ResultCode Finish(i64 nextRevOfFile, CSolidStorage* file);
    // Removes what lies below the clear revision.
    // Errors, logged: those of CSolidStorage::EnumFileRecs.
    [[nodiscard]] ResultCode CutCleared(CSolidStorage& file);

    const OpenSettings& m_settings;
    const std::string& m_connStr;
    StorageStatus& m_status;
    BlockStore& m_blocks;
    CSolidStorage& m_file;
    IndexKeeper& m_index;
    Clearer& m_clearer;

    LoadPass m_pass;  // scans the file and remembers where its commits end
    // What is read. Empty without an index, and after the index was found to mislead.
    LoadPlan m_plan;
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_LOADER_H
