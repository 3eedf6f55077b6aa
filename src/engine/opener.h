// Opening: reads the settings of a storage, opens its file, and prepares what a load needs. The
// storage object makes one opener for its call of Open.
#ifndef K9EREPL_ENGINE_OPENER_H
#define K9EREPL_ENGINE_OPENER_H

#include <k9erepl/storage_interfaces.h>

#include <string>

#include "engine/block_store.h"
#include "engine/clearer.h"
#include "engine/client_marks.h"
#include "engine/flusher.h"
#include "engine/index_keeper.h"
#include "engine/open_settings.h"
#include "engine/storage_status.h"
#include "platform/int_types.h"
#include "solid/solid_storage.h"
#include "support/result.h"

namespace k9erepl {

// Lives as long as one opening; the storage's lock is held all the time. The objects that the
// constructor gets outlive this one.
class Opener {
  public:
    Opener(OpenSettings& settings, StorageStatus& status, BlockStore& blocks, CSolidStorage& file,
           ClientMarks& marks, IndexKeeper& index, Flusher& flusher, Clearer& clearer)
        : m_settings(settings),
          m_status(status),
          m_blocks(blocks),
          m_file(file),
          m_marks(marks),
          m_index(index),
          m_flusher(flusher),
          m_clearer(clearer) {}
    Opener(const Opener&) = delete;
    Opener& operator=(const Opener&) = delete;

    // See K9eReplStorageOpen. *accepted receives `connStr` once its settings and the file were
    // accepted. The index thread, which Load starts, will call `storage`. A failure leaves what was
    // done so far, and the storage is to be torn down.
    // Errors, logged: RC_INVALID_ARG for a refused setting or name; those of CSolidStorage::Open,
    // of ClientMarks::Read and of IndexKeeper::Make.
    // May throw std::bad_alloc.
    // REQUIRES: *accepted is empty.
    [[nodiscard]] ResultCode Open(const char* connStr, IK9eReplDS& storage, std::string* accepted);

  private:
    // Checks the names of the storage's files, opens the storage file and reads the client's
    // numbers.
    [[nodiscard]] ResultCode OpenFile(const char* connStr);
    // Prepares a storage without a file: empty, and Closed until it is loaded.
    [[nodiscard]] ResultCode OpenInMemory(const char* connStr);

    OpenSettings& m_settings;
    StorageStatus& m_status;
    BlockStore& m_blocks;
    CSolidStorage& m_file;
    ClientMarks& m_marks;
    IndexKeeper& m_index;
    Flusher& m_flusher;
    Clearer& m_clearer;
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_OPENER_H
