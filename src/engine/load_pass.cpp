// Placing and cutting the items that a scan hands out; see the header.
#include "engine/load_pass.h"

#include <cassert>

#include "support/log.h"

namespace k9erepl {

ResultCode LoadPass::ScanFrom(CSolidStorage& file, i64 startOffset) {
    assert(startOffset == 0 || startOffset >= kFirstItemOffset);
    m_loadedRev = 0;
    m_closedRev = 0;
    return file.ScanFileFrom(&PlaceRecord, &TakeCommit, startOffset, this);
}

ResultCode LoadPass::ScanOn(CSolidStorage& file) {
    assert(m_loadedRev == 0 && m_closedRev == 0);
    return file.ScanOn(&PlaceRecord, &TakeCommit, this);
}

// The way of every record of a load, so the body stands here and not in a member function.
std::uint32_t LoadPass::PlaceRecord(std::uint64_t offset, const K9eReplRec* rec, void* ctx) {
    auto& pass = *static_cast<LoadPass*>(ctx);
    if (ResultCode rc = pass.m_blocks.Place(*rec, static_cast<i64>(offset)); rc != RC_OK)
        [[unlikely]] {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to insert rec while load;rev %I64d", i64{rec->rev});
        return rc;
    }
    pass.m_loadedRev = rec->rev;
    LOG_INFO(kLogStorage, "Loaded rec;rev %I64d; size %P", i64{rec->rev},
             std::size_t{rec->dataSize});
    return RC_OK;
}

std::uint32_t LoadPass::TakeCommit(void* ctx, std::int64_t clearRev, std::int64_t commitRev) {
    return static_cast<LoadPass*>(ctx)->OnCommit(clearRev, commitRev);
}

ResultCode LoadPass::OnCommit(i64 clearRev, i64 commitRev) {
    m_closedRev = m_loadedRev;
    if (clearRev > commitRev) {
        m_blocks.Clear();
        m_blocks.SetOldestRev(clearRev);
    } else if (clearRev != m_blocks.OldestRev()) {
        LOG_INFO(kLogStorage, "Processing commit block with minRev %I64d; old minRev %I64d",
                 clearRev, m_blocks.OldestRev());
        m_blocks.DropBelow(clearRev);
        m_blocks.SetOldestRev(clearRev);
    }
    // Let committed blocks leave memory at once: a file without an index may be larger than it.
    if (m_settings.MayEvict()) {
        return m_blocks.Shrink(m_settings.cacheBlocks, commitRev);
    }
    return RC_OK;
}

ResultCode LoadPass::CutUncommitted() {
    assert(m_closedRev <= m_loadedRev);
    if (m_blocks.Blocks().empty() || m_loadedRev == m_closedRev) {
        return RC_OK;
    }
    LOG_INFO(kLogStorage, "Trailing uncommitted data to rev %I64d", m_blocks.FlushedRev());
    if (ResultCode rc = m_blocks.CutAfter(m_closedRev); rc != RC_OK) {
        // The block that could not be cut is the last one now.
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to enum recs from %I64d to %I64d",
                       m_blocks.Blocks().rbegin()->first, m_blocks.FlushedRev());
        return rc;
    }
    return RC_OK;
}

}  // namespace k9erepl
