// When a storage has to flush: the counters of the flush modes, as a client may count them.
#ifndef K9EREPL_TESTS_MODEL_FLUSH_MODEL_H
#define K9EREPL_TESTS_MODEL_FLUSH_MODEL_H

#include "model/settings.h"

namespace k9erepl::model {

// Whether something happens during an operation.
enum class Expected : u8 { kNo, kMaybe, kYes };

// The time-out is out of reach, so that a flush comes by count alone.
class FlushModel {
  public:
    void Start(const Settings& settings);
    // A transaction with `bytes` of records was committed; tells whether the storage flushes.
    Expected Commit(u64 bytes);
    // The storage flushed for another reason.
    void Flushed();
    // What was counted so far may be forgotten or not.
    void LoseCount();

  private:
    bool Reached(u64 count) const;

    FlushBy m_by = FlushBy::kNever;
    i64 m_threshold = 0;
    u64 m_most = 0;   // what the storage has counted since its last flush, at most
    u64 m_least = 0;  // and at least
};

}  // namespace k9erepl::model

#endif  // K9EREPL_TESTS_MODEL_FLUSH_MODEL_H
