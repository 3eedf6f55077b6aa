// Opening: reading the settings of a storage, opening its file, and preparing what a load needs.
// The storage object makes one for its call of Open.
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

namespace k9erepl {

// Lives as long as one opening. The storage's lock is held all the time.
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
    // accepted. The index thread will call `storage`. A failure leaves what was done; the storage
    // is to be torn down. May throw std::bad_alloc.
    [[nodiscard]] u32 Open(const char* connStr, IK9eReplDS& storage, std::string* accepted);

  private:
    [[nodiscard]] u32 OpenFile(const char* connStr);
    [[nodiscard]] u32 OpenInMemory(const char* connStr);

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
