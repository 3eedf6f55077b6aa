// The steps of opening; see the header.
#include "engine/opener.h"

#include <cassert>

#include "format/storage_file_format.h"
#include "solid/storage_names.h"
#include "support/log.h"
#include "support/memory_path.h"
#include "support/params.h"

namespace k9erepl {

ResultCode Opener::Open(const char* connStr, IK9eReplDS& storage, std::string* accepted) {
    assert(accepted->empty());
    if (ResultCode rc = m_settings.ReadMain(connStr); rc != RC_OK) {
        return rc;
    }
    m_flusher.RegisterTimes();
    const bool hasFile = m_settings.HasFile();
    if (ResultCode rc = hasFile ? OpenFile(connStr) : OpenInMemory(connStr); rc != RC_OK) {
        return rc;
    }
    m_settings.ReadMemoryReserve(connStr);
    m_blocks.SetUp(m_settings.blockSize, m_settings.memoryReserve,
                   hasFile ? u64{kFileRecordSizeMax} : BlockStore::kAnyRecordSize);
    if (hasFile && m_settings.MayEvict()) {
        m_settings.ReadRangeIndexMemory(connStr);
        m_blocks.NotesInFile().SetLimit(m_settings.rangeIndexMemory);
    }
    *accepted = connStr;
    if (hasFile && !m_settings.readOnly) {
        if (ResultCode rc = m_index.Make(connStr, storage); rc != RC_OK) {
            return rc;
        }
        m_settings.ReadIndexHint(connStr);
    }
    LOG_INFO(kLogStorage, "e-repl storage was opened;conn-str %s", connStr);
    return RC_OK;
}

ResultCode Opener::OpenFile(const char* connStr) {
    assert(m_settings.HasFile());
    std::string path;
    GetParam(connStr, "file", path);
    if (path.empty()) {
        LOG_ERROR_CODE(RC_INVALID_ARG, kLogStorage,
                       "Failed to get file parameter value;conn-str %s", connStr);
        return RC_INVALID_ARG;
    }
    if (IsMemoryPath(path)) {
        LOG_ERROR_CODE(RC_INVALID_ARG, kLogStorage, "Cannot flush to file %s;conn-str %s",
                       path.c_str(), connStr);
        return RC_INVALID_ARG;
    }
    // A read-only storage never writes to its index file, so that may be any file.
    if (ResultCode rc = m_settings.readOnly ? ResultCode{RC_OK} : CheckStorageNames(connStr);
        rc != RC_OK) {
        return rc;
    }
    const FileUse use = m_settings.readOnly ? FileUse::kReadOnly : FileUse::kWrite;
    if (ResultCode rc = m_file.Open(path, connStr, use); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to init solid storage;conn-str %s", connStr);
        return rc;
    }
    return m_marks.Read(connStr);
}

ResultCode Opener::OpenInMemory(const char* connStr) {
    assert(!m_settings.HasFile());
    if (ResultCode rc = m_clearer.Truncate(); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to truncate storage;conn-str %s", connStr);
        return rc;
    }
    // Truncation opens the storage, but a client must load it first.
    m_status.Set(StorageState::kClosed);
    return RC_OK;
}

}  // namespace k9erepl
