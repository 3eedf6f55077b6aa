// The life of the storage file object: its settings, opening and closing.
#include <algorithm>
#include <cassert>
#include <new>

#include "platform/system_error.h"
#include "solid/solid_storage.h"
#include "solid/storage_file_admin.h"
#include "solid/writer_lock.h"
#include "support/log.h"
#include "support/storage_exception.h"
#include "support/yes_no.h"
#include "writers/writer_factory.h"

namespace k9erepl {

using platform::LastSystemError;

namespace {

enum class WhenAbsent {
    kTellDefault,
    kSayNothing,  // whoever does not use the setting sees the log as it was before there was one
};

u32 ReadSwitch(const char* connStr, const char* key, WhenAbsent whenAbsent, bool* on) {
    YesNo setting;
    const u32 rc = ReadYesNo(connStr, key, &setting);
    *on = setting.yes;
    if (rc != RC_OK) {
        return rc;
    }
    LogYesNo(key, setting);
    if (!setting.given && whenAbsent == WhenAbsent::kTellDefault) {
        LOG_INFO(kLogStorage, "Use default %s 'no'", key);
    }
    return RC_OK;
}

platform::FileOpenRequest RequestFor(FileUse use, bool writeThrough) {
    return use == FileUse::kReadOnly ? kReadOnlyRequest
                                     : platform::FileOpenRequest{.writeThrough = writeThrough};
}

}  // namespace

CSolidStorage::CSolidStorage(SolidStorageOwner* owner) : m_readCache(m_file), m_owner(owner) {}

CSolidStorage::~CSolidStorage() {
    Close();
}

u32 CSolidStorage::Open(const std::string& path, const char* connStr, FileUse use) {
    if (IsOpen()) {
        return RC_ALREADY;
    }
    u32 rc = RC_OK;
    try {
        rc = OpenFile(path, connStr, use);
    } catch (const std::bad_alloc&) {
        rc = RC_NO_MEMORY;
    }
    if (rc != RC_OK) {
        Close();
    }
    return rc;
}

u32 CSolidStorage::OpenFile(const std::string& path, const char* connStr, FileUse use) {
    if (u32 rc = ReadSettings(connStr); rc != RC_OK) {
        return rc;
    }
    platform::File file;
    const auto open = [&](platform::File* opened) {
        return OpenAndCheckFile(path, RequestFor(use, m_state.writeThrough), opened);
    };
    m_fileLock = m_fileLock && use == FileUse::kWrite;
    if (u32 rc = m_fileLock ? OpenForWriting(path, NoLocks::kWarn, open, &file) : open(&file);
        rc != RC_OK) {
        return rc;
    }
    i64 size = 0;
    if (!file.GetSize(&size)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                       "Cannot get file size;sys-err %r,file path '%s'", LastSystemError(),
                       path.c_str());
        return RC_SYSTEM_ERROR;
    }
    m_state.path = path;
    m_state.fileSize = size;
    m_file = platform::TrackedFile(std::move(file), kFileHeaderSize);
    if (use == FileUse::kReadOnly) {
        m_state.writePos = size;
    } else if (u32 rc = MakeWriter(connStr); rc != RC_OK) {
        return rc;
    }
    return m_readCache.Init(connStr, m_state.writePos);
}

bool CSolidStorage::Close() {
    assert(m_enumDepth == 0);
    const bool ended = m_writer == nullptr || m_writer->Shutdown();
    if (!ended) {
        m_writer.release();
        m_ownState.release();
    }
    m_writer.reset();
    m_readCache.Reset();
    m_nestedCaches.clear();
    InvalidateReads();
    m_file.Close();
    m_lockHolder.Close();
    m_inUse = false;
    m_lastWrittenRev = 0;
    m_content = {};
    m_scanEnd = {};
    m_tailUnlooked = false;
    m_tailUnkept = false;
    if (ended) {
        m_state.path.clear();
        m_state.fileSize = 0;
        m_state.writePos = 0;
        m_state.clearRev = 0;
        m_state.lastFlushedRev = 0;
        m_state.lastCommitSequence = 0;
    }
    return ended;
}

void CSolidStorage::LeaveToParent() {
    m_file.Close();
    m_lockHolder.Close();
    if (m_writer != nullptr && !m_writer->LeaveToParent()) {
        m_writer.release();
        m_ownState.release();
    }
    m_writer.reset();
}

// The recorded size is the writer's, which grows it in steps; a write may have passed it.
i64 CSolidStorage::FileSize() const {
    const i64 recorded = m_state.fileSize.load(std::memory_order_acquire);
    return std::max(recorded, m_state.writePos.load(std::memory_order_acquire));
}

u32 CSolidStorage::ReadSettings(const char* connStr) {
    if (u32 rc = ReadSwitch(connStr, "force_flush", WhenAbsent::kTellDefault, &m_state.forceFlush);
        rc != RC_OK) {
        return rc;
    }
    if (u32 rc =
            ReadSwitch(connStr, "commit_barrier", WhenAbsent::kSayNothing, &m_state.commitBarrier);
        rc != RC_OK) {
        return rc;
    }
    if (u32 rc =
            ReadSwitch(connStr, "write_through", WhenAbsent::kTellDefault, &m_state.writeThrough);
        rc != RC_OK) {
        return rc;
    }
    if (u32 rc = ReadFileLock(connStr, &m_fileLock); rc != RC_OK) {
        return rc;
    }
    bool given = false;
    m_state.fileInitialSize = GetMebibytesParam(connStr, "file_initial_size", &given);
    if (m_state.fileInitialSize < 0) {
        LOG_ERROR_CODE(RC_BAD_SIZE, kLogStorage,
                       "Invalid 'file_initial_size' value (%I64d);conn-str %s",
                       m_state.fileInitialSize, connStr);
        return RC_BAD_SIZE;
    }
    m_state.fileSizeDelta = GetMebibytesParam(connStr, "file_size_delta", &given);
    if (m_state.fileSizeDelta < 0) {
        LOG_ERROR_CODE(RC_BAD_SIZE, kLogStorage,
                       "Invalid 'file_size_delta' value (%I64d);conn-str %s", m_state.fileSizeDelta,
                       connStr);
        return RC_BAD_SIZE;
    }
    if (given) {
        LOG_INFO(kLogStorage, "Use %s %I64d", "file_size_delta", m_state.fileSizeDelta);
    }
    return RC_OK;
}

u32 CSolidStorage::MakeWriter(const char* connStr) {
    try {
        m_writer = CreateStorageWriter(connStr, &m_state);
        return RC_OK;
    } catch (const K9eStorageException& e) {
        LOG_ERROR_CODE(e.Code(), kLogStorage, "Storage Writer creating failed.");
        return e.Code();
    }
}

u32 CSolidStorage::SetWrittenRevisionCallback(K9eReplFlushCb callback, void* context) {
    m_state.onWritten.Set(callback, context);
    return RC_OK;
}

}  // namespace k9erepl
