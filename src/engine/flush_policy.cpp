// What a flush takes off the counters; see the header.
#include "engine/flush_policy.h"

#include <cassert>

namespace k9erepl {

void FlushPolicy::Flushed(const Counted& covered) {
    assert(covered.transactions <= m_transSinceFlush && covered.dataSize <= m_dataSinceFlush);
    Add(m_transSinceFlush, 0 - covered.transactions);
    Add(m_dataSinceFlush, 0 - covered.dataSize);
}

}  // namespace k9erepl
