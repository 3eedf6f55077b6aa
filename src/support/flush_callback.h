// A client's notification function with its context, set by one thread and called by another.
// The flusher keeps OnFlush in one, the storage file OnWriteToFile.
#ifndef K9EREPL_SUPPORT_FLUSH_CALLBACK_H
#define K9EREPL_SUPPORT_FLUSH_CALLBACK_H

#include <k9erepl/storage.h>

#include <atomic>

#include "platform/int_types.h"

namespace k9erepl {

class FlushCallback {
  public:
    // A null `callback` unsets it. The context is published first, so that a caller that sees the
    // new function never sees an older context.
    void Set(K9eReplFlushCb callback, void* context) {
        m_context.store(context, std::memory_order_relaxed);
        m_callback.store(callback, std::memory_order_release);
    }

    bool IsSet() const { return m_callback.load(std::memory_order_acquire) != nullptr; }

    // Does nothing when no function is set.
    void Call(i64 lastRev) const {
        if (K9eReplFlushCb callback = m_callback.load(std::memory_order_acquire)) {
            callback(lastRev, m_context.load(std::memory_order_relaxed));
        }
    }

  private:
    std::atomic<void*> m_context{nullptr};
    std::atomic<K9eReplFlushCb> m_callback{nullptr};
};

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_FLUSH_CALLBACK_H
