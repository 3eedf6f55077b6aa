// The check of the whole storage file that a load makes with the setting check: it finds the damage
// that an index lets the load pass over, before anything is written behind it.
#include "solid/solid_storage.h"
#include "support/log.h"

namespace k9erepl {

// An index may have led the load past damage, or to bytes in some record's data that look like
// items: then the two scans end at different commit blocks.
u32 CSolidStorage::CheckWhole(i64 loadedFrom) {
    LOG_INFO(kLogStorage, "Checking the whole storage file;file path '%s'", m_state.path.c_str());
    FileScan::Result whole = m_scanEnd;
    if (IsScanHint(loadedFrom)) {
        if (u32 rc = ScanWhole(&whole); rc != RC_OK) {
            return rc;
        }
    }
    // Beside a writer it is the file that has gone on.
    if (whole.validCommitOffset > m_scanEnd.validCommitOffset && !IsReadOnly()) {
        LOG_WARNING(kLogStorage,
                    "Index led the load to another end than that of the file;offset %I64d",
                    m_scanEnd.validCommitOffset);
        return RC_BAD_DATA;
    }
    bool damaged = false;
    if (u32 rc = LookForDamage(whole, &damaged); rc != RC_OK) {
        return rc;
    }
    // A squeeze may have cut off the commit block of its clear: what closes the records is there.
    const i64 wanted = IsReadOnly() ? m_scanEnd.closingOffset : m_scanEnd.validCommitOffset;
    if (!damaged && whole.validCommitOffset >= wanted) {
        return RC_OK;
    }
    if (CheckContent() == kContentChanged) {
        return kContentChanged;
    }
    LOG_ERROR_CODE(RC_FILE_CORRUPT, kLogStorage,
                   "Storage file is damaged in the middle, nothing was changed; load it without "
                   "check=yes to go on with what can be read;file path '%s',offset %I64d,last good "
                   "rev %I64d",
                   m_state.path.c_str(), whole.stopOffset, whole.lastCommitted);
    return RC_FILE_CORRUPT;
}

u32 CSolidStorage::ScanWhole(FileScan::Result* whole) {
    const FileScanCallbacks ignore{
        [](std::uint64_t, const K9eReplRec*, void*) -> std::uint32_t { return RC_OK; },
        [](void*, std::int64_t, std::int64_t) -> std::uint32_t { return RC_OK; }, nullptr};
    if (IsReadOnly()) {
        const u32 rc = ScanLive(ignore, {}, m_scanEnd.validCommitOffset + kCommitBlockSize, whole);
        if (whole->validCommitOffset == m_scanEnd.validCommitOffset) {
            whole->stopOffset = m_scanEnd.stopOffset;
            whole->stopInUse = m_scanEnd.stopInUse;
        }
        return rc;
    }
    FileScan scan(m_file, {.fileSize = FileSize()}, ignore);
    const u32 rc = scan.Run(kFirstCommitOffset, false);
    *whole = scan.GetResult();
    return rc;
}

}  // namespace k9erepl
