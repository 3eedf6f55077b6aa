// Loading a read-only storage, beside its writer: any number of times, each going on from where the
// last one stood, or starting anew when the path leads to other content.
#include <new>

#include "engine/repl_storage.h"
#include "support/log.h"

namespace k9erepl {

namespace {

// A writer may start its file over, or take a failed flush back, while a load reads it.
constexpr u32 kAttemptsMost = 100;

}  // namespace

u32 CK9eReplStorage::LoadLive() {
    // The walk would go on among other records.
    if (m_walks > 0) {
        return RC_ALREADY;
    }
    bool loaded = State() == StorageState::kOpen;
    u32 rc = kContentChanged;
    for (u32 attempt = 0; attempt < kAttemptsMost && rc == kContentChanged; ++attempt) {
        try {
            rc = LoadLiveOnce(&loaded);
        } catch (const std::bad_alloc&) {
            rc = RC_NO_MEMORY;
            loaded = false;
            LOG_ERROR_CODE(rc, kLogStorage, "Failed to load, out of memory;conn-str %s",
                           m_connStr.c_str());
        }
    }
    if (rc == kContentChanged) {
        LOG_ERROR_CODE(rc, kLogStorage, "Storage file changed whenever it was read;conn-str %s",
                       m_connStr.c_str());
    }
    if (rc != RC_OK && !loaded) {
        AbandonLoad();
    }
    return rc;
}

// *loaded says whether there is an earlier load to go on from, or to keep when the file cannot be
// opened.
u32 CK9eReplStorage::LoadLiveOnce(bool* loaded) {
    bool goesOn = false;
    if (u32 rc = m_solid.Refresh(&goesOn); rc != RC_OK) {
        return rc;
    }
    const bool loadsOn = *loaded && goesOn;
    *loaded = false;
    u32 rc = RC_OK;
    if (loadsOn) {
        rc = LoadOn();
    } else {
        m_blocks.EraseAll();
        rc = LoadLocked();
    }
    if (rc == RC_OK) {
        rc = m_solid.ReadMarks(&m_lifenum, &m_clearOldRev);
    }
    // Whatever went wrong: in a file that changed meanwhile it need not be a fault of the file.
    const u32 checkRc = m_solid.CheckContent();
    if (checkRc == kContentChanged) {
        LOG_INFO(kLogStorage, "Storage file changed while it was read;conn-str %s",
                 m_connStr.c_str());
    }
    if (checkRc != RC_OK) {
        rc = checkRc;
    }
    *loaded = rc == RC_OK;
    return rc;
}

u32 CK9eReplStorage::LoadOn() {
    i64 lowestRev = 0;
    bool hasItems = false;
    if (u32 rc = m_solid.ReadFirstCommitInfo(&lowestRev, &hasItems); rc != RC_OK) {
        return rc;
    }
    if (u32 rc = m_solid.ScanOn(&PlaceLoadedRecord, &TakeLoadedCommit, this); rc != RC_OK) {
        return rc;
    }
    return FinishLoadFromOpenFile(lowestRev);
}

}  // namespace k9erepl
