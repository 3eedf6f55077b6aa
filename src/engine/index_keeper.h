// Keeps the index file in step with the block index: when it is saved, when it is emptied, and that
// its thread runs. The storage object owns one; loads, commits and clears call it.
#ifndef K9EREPL_ENGINE_INDEX_KEEPER_H
#define K9EREPL_ENGINE_INDEX_KEEPER_H

#include <k9erepl/storage_interfaces.h>

#include <cstddef>
#include <memory>

#include "engine/block_store.h"
#include "engine/open_settings.h"
#include "index/index_object.h"
#include "platform/int_types.h"

namespace k9erepl {

// A storage without a file, or one that is read-only, has no index file: then there is no index
// object, and only what says so below may be called. Guarded by the storage's lock.
class IndexKeeper {
  public:
    IndexKeeper(const OpenSettings& settings, const BlockStore& blocks)
        : m_settings(settings), m_blocks(blocks) {}
    IndexKeeper(const IndexKeeper&) = delete;
    IndexKeeper& operator=(const IndexKeeper&) = delete;

    // Makes the index object, whose thread will call `idle`. Errors, logged: RC_INVALID_ARG,
    // RC_NO_MEMORY.
    [[nodiscard]] u32 Make(const char* connStr, IK9eReplDS& idle);
    // Before the storage file is given free: another writer may open it at once, and then owns the
    // index file. As IndexObject::EndWriting. Without an index object: nothing.
    void EndWriting();
    // Stops the thread and frees the index object. Without one: nothing.
    void End() { m_object.reset(); }
    // In a forked child: as IndexObject::LeaveToParent. Without an index object: nothing.
    void LeaveToParent();

    // After a load: starts the thread and saves all of the block index. Without an index object:
    // RC_OK. Errors: RC_SYSTEM_ERROR, RC_NO_MEMORY.
    [[nodiscard]] u32 Start();
    // For a load that failed: stops the thread. Without an index object: nothing.
    void Stop();
    // No save is counted any more: the block index begins anew.
    void Reset() { m_savedCount = 0; }

    // Asks for a save when enough blocks are new since the last one. A save that cannot be made
    // now is no failure: the index is only an aid. Not in the middle of a flush, whose failure
    // would take file offsets back.
    void SaveIfGrown();
    // Saves all of the block index after a clear; after a squeeze the file is written on return.
    // No failure either.
    void SaveAfterClear(bool squeezed);

    // Restarts the thread if it has ended. Returns true if it had; the restart itself may fail,
    // which shows as IndexObject::IsFinished().
    bool RestartIfFinished();
    // Takes all entries out of the index file: they would lead the next load to old bytes behind
    // the live data. Errors, logged: RC_SYSTEM_ERROR, RC_NO_MEMORY; RC_WRONG_STATE without an index
    // object.
    [[nodiscard]] u32 Empty();

  private:
    friend struct StorageAccess;  // the tests' eyes

    const OpenSettings& m_settings;
    const BlockStore& m_blocks;
    std::unique_ptr<IndexObject> m_object;  // null without an index file
    std::size_t m_savedCount = 0;           // blocks in the index at the last save
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_INDEX_KEEPER_H
