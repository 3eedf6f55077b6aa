// Access to the header of the open storage file: the life number and the revision mark. The header
// is read whole, changed and written back whole, so its reserved bytes stay as they are.
#include "platform/system_error.h"
#include "solid/file_access.h"
#include "solid/solid_storage.h"
#include "support/log.h"

namespace k9erepl {

using platform::LastSystemError;

namespace {

u32 ReadAtStart(platform::File& file, TFileHeader* header) {
    if (u32 rc = SeekTo(file, 0); rc != RC_OK) {
        return rc;
    }
    u32 got = 0;
    if (ReadWhole(file, header, kFileHeaderSize, &got) != RC_OK) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Failed to read file header; sys-err %r",
                       LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    return RC_OK;
}

u32 WriteAtStart(platform::File& file, const TFileHeader& header) {
    if (u32 rc = SeekTo(file, 0); rc != RC_OK) {
        return rc;
    }
    u32 put = 0;
    if (!file.Write(&header, kFileHeaderSize, &put)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Failed to write file header; sys-err %r",
                       LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    return RC_OK;
}

}  // namespace

// Runs `action` on the file with the writer at rest, and puts the file pointer back afterwards.
template <typename Action>
u32 CSolidStorage::WithHeaderPosition(Action action) {
    if (!IsOpen()) {
        return RC_NO_WRITER;
    }
    if (m_writer != nullptr) {
        if (u32 rc = CompleteAsyncTasks(); rc != RC_OK) {
            return rc;
        }
    }
    i64 before = 0;
    if (!m_file.Raw().Tell(&before)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Cannot get file offset;sys-err %r",
                       LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    const u32 rc = action();
    const u32 seekRc = SeekTo(m_file.Raw(), before);
    if (seekRc != RC_OK) {
        m_file.Forget();
    }
    return rc != RC_OK ? rc : seekRc;
}

u32 CSolidStorage::ReadHeader(TFileHeader* header) {
    return WithHeaderPosition([&] { return ReadAtStart(m_file.Raw(), header); });
}

template <typename Change>
u32 CSolidStorage::UpdateHeader(Change change) {
    if (m_writer == nullptr) {
        return RC_NO_WRITER;
    }
    return WithHeaderPosition([&] {
        TFileHeader header;
        if (u32 rc = ReadAtStart(m_file.Raw(), &header); rc != RC_OK) {
            return rc;
        }
        change(header);
        return WriteAtStart(m_file.Raw(), header);
    });
}

u32 CSolidStorage::GetLifenum(u32* lifenum) {
    TFileHeader header;
    const u32 rc = ReadHeader(&header);
    if (rc == RC_OK) {
        *lifenum = header.lifenum;
    }
    return rc;
}

u32 CSolidStorage::GetClearOldRev(i64* rev) {
    TFileHeader header;
    const u32 rc = ReadHeader(&header);
    if (rc == RC_OK) {
        *rev = header.clearOldRev;
    }
    return rc;
}

u32 CSolidStorage::SetLifenum(u32 lifenum) {
    return UpdateHeader([=](TFileHeader& header) { header.lifenum = lifenum; });
}

u32 CSolidStorage::SetClearOldRev(i64 rev) {
    return UpdateHeader([=](TFileHeader& header) { header.clearOldRev = rev; });
}

}  // namespace k9erepl
