// Keeps the index file in step with the block index: decides when it is saved and emptied, and sees
// to it that its thread runs. The storage object owns one; loads, commits and clears call it.
// docs/index-file.md describes the file and its rules.
#ifndef K9EREPL_ENGINE_INDEX_KEEPER_H
#define K9EREPL_ENGINE_INDEX_KEEPER_H

#include <k9erepl/storage_interfaces.h>

#include <cstddef>
#include <memory>

#include "engine/block_store.h"
#include "engine/open_settings.h"
#include "index/index_object.h"
#include "platform/int_types.h"
#include "support/result.h"

namespace k9erepl {

// A storage without a file, or one that is read-only, has no index file. Then there is no index
// object, and only the functions that say so may be called. Guarded by the storage's lock.
//
// The index is only an aid: without it, a load reads more. So a save that fails is no error for a
// client. But an index file that leads to wrong places would do harm, so it is emptied before its
// file offsets become wrong.
class IndexKeeper {
  public:
    IndexKeeper(const OpenSettings& settings, const BlockStore& blocks)
        : m_settings(settings), m_blocks(blocks) {}
    IndexKeeper(const IndexKeeper&) = delete;
    IndexKeeper& operator=(const IndexKeeper&) = delete;

    // Makes the index object, whose thread will call `idle` when nothing is to be saved for the
    // time of the setting flush_timeout. `idle` outlives this object.
    // Errors, logged: RC_INVALID_ARG when the settings name no index file, RC_NO_MEMORY.
    // REQUIRES: there is no index object yet; the storage has a file that it may write.
    [[nodiscard]] ResultCode Make(const char* connStr, IK9eReplDS& idle);
    // To be called before the storage file is closed: another writer may open it at once, and then
    // owns the index file. As IndexObject::EndWriting. Without an index object: nothing.
    void EndWriting();
    // Stops the thread and frees the index object. Without an index object: nothing.
    void End() { m_object.reset(); }
    // For a forked child: as IndexObject::LeaveToParent. Without an index object: nothing.
    void LeaveToParent();

    // To be called at the end of a load: makes the file anew, starts the thread and saves the whole
    // block index. Without an index object: RC_OK.
    // Errors: RC_SYSTEM_ERROR, RC_NO_MEMORY.
    [[nodiscard]] ResultCode Start();
    // For a load that failed: stops the thread and closes the file. Without an index object:
    // nothing.
    void Stop();
    // To be called when the block index is empty again: the next save is due after `index_hint`
    // blocks.
    void Reset() { m_savedCount = 0; }

    // Asks the thread for a save when the number of blocks has grown by the setting index_hint
    // since the last attempt. Never fails: a save that cannot be made now is skipped.
    // REQUIRES: there is an index object. Not in the middle of a flush, whose failure would take
    // file offsets back.
    void SaveIfGrown() {
        const std::size_t count = m_blocks.Index().size();
        if (count >= m_savedCount + m_settings.indexHint) {
            SaveGrown(count);
        }
    }
    // Saves the whole block index after a clear. After a squeeze the file is written on return, if
    // it can be written; otherwise the thread writes it, or nobody if the thread is busy. Never
    // fails.
    // REQUIRES: there is an index object.
    void SaveAfterClear(bool squeezed);

    // Restarts the thread if it has ended. Returns true if it had ended; the restart itself may
    // fail, which shows as IndexObject::IsFinished().
    // REQUIRES: there is an index object.
    bool RestartIfFinished();
    // Takes all entries out of the index file and flushes that to the disk: they would lead the
    // next load to old bytes behind the live data.
    // Errors, logged: RC_SYSTEM_ERROR, RC_NO_MEMORY. RC_WRONG_STATE without an index object.
    [[nodiscard]] ResultCode Empty();

  private:
    // The save that SaveIfGrown asks for, of an index of `count` blocks.
    void SaveGrown(std::size_t count);

    // Lets the tests look inside.
    friend struct StorageAccess;

    const OpenSettings& m_settings;
    const BlockStore& m_blocks;
    std::unique_ptr<IndexObject> m_object;  // null without an index file
    // How many blocks the index had at the last save, or at the last attempt; 0: none yet.
    std::size_t m_savedCount = 0;
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_INDEX_KEEPER_H
