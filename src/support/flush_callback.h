// A client's notification function with its context, set by one thread and called by another. The
// flusher keeps OnFlush in one, the storage file keeps OnWriteToFile in one.
#ifndef K9EREPL_SUPPORT_FLUSH_CALLBACK_H
#define K9EREPL_SUPPORT_FLUSH_CALLBACK_H

#include <k9erepl/storage.h>

#include <atomic>

#include "platform/int_types.h"

namespace k9erepl {

// Needs no lock, because the client may set a callback while the index thread or the writing thread
// calls the old one. Replacing a callback that is set is still the client's risk: for a moment the
// old function may be called with the new context. The context belongs to the client.
class FlushCallback {
  public:
    // A null `callback` unsets it. The context is published first, so that a caller that sees the
    // new function never sees an older context.
    void Set(K9eReplFlushCb callback, void* context) {
        m_context.store(context, std::memory_order_relaxed);
        m_callback.store(callback, std::memory_order_release);
    }

    // The answer may be out of date at once.
    bool IsSet() const { return m_callback.load(std::memory_order_acquire) != nullptr; }

    // Calls the function with `lastRev`; does nothing when none is set. Lets pass what the function
    // throws. The caller holds the storage's lock, or is the writing thread.
    void Call(i64 lastRev) const {
        if (K9eReplFlushCb callback = m_callback.load(std::memory_order_acquire)) {
            callback(lastRev, m_context.load(std::memory_order_relaxed));
        }
    }

  private:
    // The client's pointer, handed back as it is; may be null.
    std::atomic<void*> m_context{nullptr};
    // Null: nothing is called.
    std::atomic<K9eReplFlushCb> m_callback{nullptr};
};

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_FLUSH_CALLBACK_H
