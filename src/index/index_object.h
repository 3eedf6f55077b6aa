// Saves the block index into the index file, at once or through a thread of its own, which also
// calls the storage's idle flush. The storage object owns one unless it has no file.
#ifndef K9EREPL_INDEX_INDEX_OBJECT_H
#define K9EREPL_INDEX_INDEX_OBJECT_H

#include <k9erepl/storage_interfaces.h>

#include <atomic>
#include <string>
#include <vector>

#include "index/block_index.h"
#include "index/index_image.h"
#include "platform/event.h"
#include "platform/file.h"
#include "platform/int_types.h"
#include "platform/thread.h"
#include "support/timing_set.h"

namespace k9erepl {

enum class IndexSaveMode { kSync, kAsync };

// Start, Stop and RequestSave are called under the storage's lock (Stop also while the storage is
// torn down); the tests of flags from anywhere.
class IndexObject {
  public:
    // Reads index_file or file, and aux_affinity. `idle` is called every `waitMs` milliseconds
    // without a request and outlives this object. `blockSize` goes into the file's header.
    // Throws K9eStorageException (RC_INVALID_ARG when the storage has no index file,
    // RC_NO_MEMORY) and std::bad_alloc.
    IndexObject(const char* connStr, IK9eReplDS& idle, u32 blockSize, u32 waitMs);
    // Stops the thread.
    ~IndexObject();
    IndexObject(const IndexObject&) = delete;
    IndexObject& operator=(const IndexObject&) = delete;

    const std::string& Path() const { return m_path; }

    // Makes the file anew, without entries, and starts the thread. The next save writes
    // everything. Errors: RC_SYSTEM_ERROR, RC_NO_MEMORY.
    u32 Start();
    void Stop();

    // Saves what is new in `blockIndex` since the last save, as far as it is in the storage file.
    // kSync writes the file before it returns; kAsync leaves that to the thread.
    // Errors: those of writing the file (kSync), RC_NO_MEMORY.
    u32 RequestSave(const BlockIndex& blockIndex, IndexSaveMode mode);

    // Whether a save is in progress or requested; whether no thread runs.
    bool IsBusy() const;
    bool IsFinished() const;
};

}  // namespace k9erepl

#endif  // K9EREPL_INDEX_INDEX_OBJECT_H
