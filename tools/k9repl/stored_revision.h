// The last revision that is safely stored, as the library's two callbacks report it. The append
// command promises nothing above it.
#ifndef K9EREPL_K9REPL_STORED_REVISION_H
#define K9EREPL_K9REPL_STORED_REVISION_H

#include <k9erepl/storage.h>

#include <atomic>
#include <cstdint>

#include "storage_handle.h"

namespace k9repl {

// Must outlive the handle that it watches: closing a storage flushes once more.
class StoredRevision {
  public:
    StoredRevision() = default;
    StoredRevision(const StoredRevision&) = delete;
    StoredRevision& operator=(const StoredRevision&) = delete;

    // Called before the first transaction. What the storage was loaded with is stored.
    void Watch(StorageHandle& storage);

    // Both written and flushed; 0 when nothing is stored.
    std::int64_t Get() const;
    // Flushed; the asynchronous writer may not have written it yet.
    std::int64_t Flushed() const { return m_flushed.load(); }

  private:
    static void K9EREPL_CALL OnRevision(std::int64_t lastRev, void* context);

    std::atomic<std::int64_t> m_flushed{0};
    std::atomic<std::int64_t> m_written{0};
};

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_STORED_REVISION_H
