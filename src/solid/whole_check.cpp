// Checking the whole storage file; see the header.
#include "solid/whole_check.h"

#include <cassert>

#include "support/log.h"

namespace k9erepl {

// An index may have led the load past damage, or to bytes in some record's data that look like
// items: then the two scans end at different commit blocks.
ResultCode WholeCheck::Run(i64 loadedFrom) {
    assert(loadedFrom == 0 || loadedFrom >= kFirstCommitOffset);
    assert(m_load.End().commitFound);
    const FileScan::Result& loaded = m_load.End();
    LOG_INFO(kLogStorage, "Checking the whole storage file;file path '%s'", m_file.Path().c_str());
    FileScan::Result whole = loaded;
    if (LoadScan::IsHint(loadedFrom)) {
        if (ResultCode rc = ScanWhole(&whole); rc != RC_OK) {
            return rc;
        }
    }
    // Beside a writer, a later end only means that the file has grown.
    if (whole.validCommitOffset > loaded.validCommitOffset && !m_file.IsReadOnly()) {
        LOG_WARNING(kLogStorage,
                    "Index led the load to another end than that of the file;offset %I64d",
                    loaded.validCommitOffset);
        return RC_BAD_DATA;
    }
    bool damaged = false;
    if (ResultCode rc = m_tail.LookBehind(whole, &damaged); rc != RC_OK) {
        return rc;
    }
    // Beside a writer, a squeeze may have cut off the commit block of its clear. The one that
    // closes the records must still be there.
    const i64 wanted = m_file.IsReadOnly() ? loaded.closingOffset : loaded.validCommitOffset;
    if (!damaged && whole.validCommitOffset >= wanted) {
        return RC_OK;
    }
    if (m_live.CheckContent() == kContentChanged) {
        return kContentChanged;
    }
    LOG_ERROR_CODE(RC_FILE_CORRUPT, kLogStorage,
                   "Storage file is damaged in the middle, nothing was changed; load it without "
                   "check=yes to go on with what can be read;file path '%s',offset %I64d,last good "
                   "rev %I64d",
                   m_file.Path().c_str(), whole.stopOffset, whole.lastCommitted);
    return RC_FILE_CORRUPT;
}

ResultCode WholeCheck::ScanWhole(FileScan::Result* whole) {
    assert(whole != nullptr);
    const FileScanCallbacks ignore{
        [](std::uint64_t, const K9eReplRec*, void*) -> std::uint32_t { return RC_OK; },
        [](void*, std::int64_t, std::int64_t) -> std::uint32_t { return RC_OK; }, nullptr};
    if (m_file.IsReadOnly()) {
        const ResultCode rc =
            m_live.Scan(ignore, {}, m_load.End().validCommitOffset + kCommitBlockSize, whole);
        if (whole->validCommitOffset == m_load.End().validCommitOffset) {
            whole->stopOffset = m_load.End().stopOffset;
            whole->stopInUse = m_load.End().stopInUse;
        }
        return rc;
    }
    FileScan scan(m_file.Reader(), {.fileSize = m_file.FileSize()}, ignore);
    const ResultCode rc = scan.Run(kFirstCommitOffset, false);
    *whole = scan.GetResult();
    return rc;
}

}  // namespace k9erepl
