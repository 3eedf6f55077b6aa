// Loading the storage file; see the header.
#include "solid/load_scan.h"

#include <cassert>
#include <limits>

namespace k9erepl {

ResultCode LoadScan::ScanFrom(const FileScanCallbacks& callbacks, i64 startOffset) {
    assert(callbacks.record != nullptr && callbacks.commit != nullptr);
    assert(startOffset == 0 || startOffset >= kFirstCommitOffset);
    if (!m_file.IsOpen()) {
        return RC_NO_WRITER;
    }
    const bool fromHint = IsHint(startOffset);
    const i64 start = fromHint ? startOffset : kFirstCommitOffset;
    if (m_file.IsReadOnly()) {
        return LoadLive(callbacks, {.offset = start, .fromHint = fromHint});
    }
    FileScan scan(m_file.Reader(), {.fileSize = m_file.FileSize()}, callbacks);
    const ResultCode scanRc = scan.Run(start, fromHint);
    m_file.InvalidateReads();
    if (scanRc != RC_OK) {
        return scanRc;
    }
    if (ResultCode rc = TakeEnd(scan.GetResult()); rc != RC_OK) {
        return rc;
    }
    m_file.SetInUse(true);
    m_file.ItemsMoved();
    return RC_OK;
}

ResultCode LoadScan::ScanOn(const FileScanCallbacks& callbacks) {
    assert(m_file.InUse());
    const FileScan::Result from = m_end;
    return LoadLive(callbacks, {.resume = &from});
}

ResultCode LoadScan::LoadLive(const FileScanCallbacks& callbacks, const LiveFile::Start& start) {
    FileScan::Result result;
    const ResultCode rc = m_live.Scan(callbacks, start, std::numeric_limits<i64>::max(), &result);
    m_file.InvalidateReads();
    if (rc != RC_OK) {
        return rc;
    }
    m_file.SetInUse(true);
    return TakeEnd(result);
}

ResultCode LoadScan::TakeEnd(const FileScan::Result& end) {
    assert(end.commitFound && end.validCommitOffset >= kFirstCommitOffset);
    const i64 position = end.validCommitOffset + kCommitBlockSize;
    if (m_file.IsReadOnly()) {
        m_live.MarkContent(end);
    } else if (ResultCode rc = m_file.Writer().SetWritePos(position, true, end.tailInUse);
               rc != RC_OK) {
        return rc;
    }
    m_end = end;
    StorageFileState& state = m_file.State();
    state.lastCommitSequence = end.lastSequence;
    state.clearRev = end.clearRev;
    state.lastFlushedRev = end.lastCommitted;
    m_file.SetLastWrittenRev(0);
    return RC_OK;
}

}  // namespace k9erepl
