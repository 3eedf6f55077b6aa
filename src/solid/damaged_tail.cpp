// Noticing damage in the middle of the storage file; see the header.
#include "solid/damaged_tail.h"

#include <algorithm>
#include <cassert>
#include <new>

#include "format/damage_search.h"
#include "platform/memory.h"
#include "solid/tail_copy.h"
#include "support/log.h"

namespace k9erepl {

void DamagedTail::KeepIfDamaged(TailCare care) {
    bool damaged = false;
    const bool looked = LookBehind(m_load.End(), &damaged) == RC_OK;
    if (care == TailCare::kKeepCopy) {
        m_unlooked = !looked;
        m_unkept = damaged && !Keep();
    }
}

// The last chance: what is not kept now is zeroed by the write that follows.
void DamagedTail::KeepAfterAll() {
    assert(m_unlooked || m_unkept);
    bool damaged = m_unkept;
    if (m_unlooked) {
        // Dropped: it is logged, and a tail that cannot be looked at counts as sound.
        (void)LookBehind(m_load.End(), &damaged);
    }
    m_unlooked = false;
    m_unkept = false;
    if (damaged) {
        (void)Keep();  // dropped: it is logged, and the write goes on
    }
}

ResultCode DamagedTail::LookBehind(const FileScan::Result& end, bool* damaged) {
    assert(damaged != nullptr);
    *damaged = false;
    if (!end.stopInUse) {
        return RC_OK;
    }
    const i64 left = m_file.FileSize() - end.stopOffset;
    const auto size = static_cast<u32>(std::clamp<i64>(left, 0, kDamageSearchSize));
    const platform::MemoryBuffer bytes = platform::AllocBuffer(size);
    const ResultCode rc =
        bytes == nullptr ? u32{RC_NO_MEMORY} : m_file.ReadAt(end.stopOffset, bytes.get(), size);
    if (rc == RC_SHORT_READ && m_file.IsReadOnly()) {
        return RC_OK;  // the writer has cut the file meanwhile
    }
    if (rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Cannot look for damage in file '%s';offset %I64d",
                       m_file.Path().c_str(), end.stopOffset);
        return rc;
    }
    const LastGoodCommit last{.clearRev = end.clearRevBefore,
                              .commitRev = end.committedBefore,
                              .sequence = end.lastSequence};
    const BeyondDamage beyond = SearchBeyondDamage(bytes.get(), size, last);
    if (beyond.IsDamage() && m_file.IsReadOnly() && m_live.GoesOnBehind(end)) {
        return RC_OK;
    }
    if (beyond.IsDamage()) {
        LOG_ERROR_CODE(RC_FILE_CORRUPT, kLogStorage,
                       "Damage in the middle of file '%s';offset %I64d,last good rev %I64d,revs "
                       "beyond %I64d-%I64d",
                       m_file.Path().c_str(), end.stopOffset, end.lastCommitted, beyond.lowestRev,
                       beyond.highestRev);
    }
    *damaged = beyond.IsDamage();
    return RC_OK;
}

bool DamagedTail::Keep() {
    assert(m_load.End().commitFound);
    ResultCode rc = RC_NO_MEMORY;
    try {
        rc = KeepDamagedTail(m_file.Reader().Raw(), m_file.Path(),
                             m_load.End().validCommitOffset + kCommitBlockSize);
    } catch (const std::bad_alloc&) {
        LOG_ERROR_CODE(rc, kLogStorage, "Cannot keep damaged tail of file '%s', out of memory",
                       m_file.Path().c_str());
    }
    m_file.Reader().Forget();
    return rc == RC_OK;
}

void DamagedTail::Reset() {
    m_unlooked = false;
    m_unkept = false;
}

}  // namespace k9erepl
