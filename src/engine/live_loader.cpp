// The attempts of a load beside the writer; see the header.
#include "engine/live_loader.h"

#include <cassert>
#include <new>

#include "support/log.h"

namespace k9erepl {

namespace {

// A writer may start its file over, or take a failed flush back, while a load reads it. The load
// then tries again, but not for ever.
constexpr u32 kAttemptsMost = 100;

}  // namespace

ResultCode LiveLoader::Load() {
    assert(m_status.State() != StorageState::kBroken);
    bool loaded = m_status.IsOpen();
    ResultCode rc = kContentChanged;
    for (u32 attempt = 0; attempt < kAttemptsMost && rc == kContentChanged; ++attempt) {
        try {
            rc = LoadOnce(&loaded);
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
        m_loader.Abandon();
    }
    return rc;
}

// *loaded says whether there is an earlier load to go on from, or to keep when the file cannot be
// opened.
ResultCode LiveLoader::LoadOnce(bool* loaded) {
    bool goesOn = false;
    if (ResultCode rc = m_file.Refresh(&goesOn); rc != RC_OK) {
        return rc;
    }
    const bool loadsOn = *loaded && goesOn;
    *loaded = false;
    ResultCode rc = loadsOn ? m_loader.LoadOn() : m_loader.LoadAnew();
    if (rc == RC_OK) {
        rc = m_marks.ReadLive();
    }
    // If the file changed meanwhile, that is the result: any other failure may come from the change
    // and be no fault of the file.
    const ResultCode checkRc = m_file.CheckContent();
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

}  // namespace k9erepl
