// The open storage file's handles and header; see the header.
#include "solid/storage_file.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "platform/system_error.h"
#include "solid/file_access.h"
#include "solid/file_settings.h"
#include "solid/storage_file_admin.h"
#include "solid/writer_lock.h"
#include "support/log.h"
#include "support/storage_exception.h"
#include "writers/writer_factory.h"

namespace k9erepl {

using platform::File;
using platform::LastSystemError;

namespace {

platform::FileOpenRequest RequestFor(FileUse use, bool writeThrough) {
    return use == FileUse::kReadOnly ? kReadOnlyRequest
                                     : platform::FileOpenRequest{.writeThrough = writeThrough};
}

[[nodiscard]] ResultCode ReadAtStart(File& file, TFileHeader* header) {
    if (ResultCode rc = SeekTo(file, 0); rc != RC_OK) {
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

[[nodiscard]] ResultCode WriteAtStart(File& file, const TFileHeader& header) {
    if (ResultCode rc = SeekTo(file, 0); rc != RC_OK) {
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

ResultCode StorageFile::Open(const std::string& path, const char* connStr, FileUse use) {
    assert(!IsOpen());
    if (ResultCode rc = ReadFileSettings(connStr, &m_state, &m_fileLock); rc != RC_OK) {
        return rc;
    }
    File file;
    const auto open = [&](File* opened) {
        return OpenAndCheckFile(path, RequestFor(use, m_state.writeThrough), opened);
    };
    m_fileLock = m_fileLock && use == FileUse::kWrite;
    if (ResultCode rc =
            m_fileLock ? OpenForWriting(path, NoLocks::kWarn, open, &file) : open(&file);
        rc != RC_OK) {
        return rc;
    }
    i64 size = 0;
    if (ResultCode rc = GetSizeOf(file, path, &size); rc != RC_OK) {
        return rc;
    }
    m_state.path = path;
    m_state.fileSize = size;
    m_file = platform::TrackedFile(std::move(file), kFileHeaderSize);
    if (use == FileUse::kReadOnly) {
        m_state.writePos = size;
        return RC_OK;
    }
    return MakeWriter(connStr);
}

ResultCode StorageFile::MakeWriter(const char* connStr) {
    assert(m_writer == nullptr);
    try {
        m_writer = CreateStorageWriter(connStr, &m_state);
        return RC_OK;
    } catch (const K9eStorageException& e) {
        LOG_ERROR_CODE(e.Code(), kLogStorage, "Storage Writer creating failed.");
        return e.Code();
    }
}

bool StorageFile::Close() {
    const bool ended = m_writer == nullptr || m_writer->Shutdown();
    if (!ended) {
        m_writer.release();
        m_ownState.release();
    }
    m_writer.reset();
    InvalidateReads();
    m_file.Close();
    m_lockHolder.Close();
    m_inUse = false;
    m_lastWrittenRev = 0;
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

void StorageFile::LeaveToParent() {
    m_file.Close();
    m_lockHolder.Close();
    if (m_writer != nullptr && !m_writer->LeaveToParent()) {
        m_writer.release();
        m_ownState.release();
    }
    m_writer.reset();
    assert(!IsOpen());
}

// The recorded size is the writer's, which grows it in steps; a write may have passed it.
i64 StorageFile::FileSize() const {
    const i64 recorded = m_state.fileSize.load(std::memory_order_acquire);
    return std::max(recorded, m_state.writePos.load(std::memory_order_acquire));
}

ResultCode StorageFile::UpdateFileSize(i64* size) {
    assert(IsOpen() && size != nullptr);
    if (ResultCode rc = GetSizeOf(m_file.Raw(), m_state.path, size); rc != RC_OK) {
        return rc;
    }
    m_state.fileSize = *size;
    return RC_OK;
}

ResultCode StorageFile::ReadAt(i64 offset, void* buffer, u32 size) {
    assert(IsOpen() && offset >= 0);
    if (ResultCode rc = SeekTo(m_file, offset); rc != RC_OK) {
        return rc;
    }
    u32 got = 0;
    const ResultCode rc = ReadWhole(m_file, buffer, size, &got);
    if (rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to read block;sys-err %r,offset %I64d",
                       LastSystemError(), offset);
    }
    return rc;
}

ResultCode StorageFile::CompleteAsyncTasks() {
    if (!IsOpen() || m_writer == nullptr) {
        return RC_NO_WRITER;
    }
    const ResultCode rc = m_writer->CompleteAsyncTasks();
    if (rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage,
                       "Storage writer failed to process wait for finish write operations");
    }
    return rc;
}

// Runs `action` on the file with the writer at rest, and puts the file pointer back afterwards.
template <typename Action>
ResultCode StorageFile::WithHeaderPosition(Action action) {
    if (!IsOpen()) {
        return RC_NO_WRITER;
    }
    if (m_writer != nullptr) {
        if (ResultCode rc = CompleteAsyncTasks(); rc != RC_OK) {
            return rc;
        }
    }
    File& file = m_file.Raw();
    i64 before = 0;
    if (!file.Tell(&before)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Cannot get file offset;sys-err %r",
                       LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    assert(m_file.Position() == platform::TrackedFile::kUnknownPosition ||
           m_file.Position() == before);
    const ResultCode rc = action(file);
    const ResultCode seekRc = SeekTo(file, before);
    if (seekRc != RC_OK) {
        m_file.Forget();
    }
    return rc != RC_OK ? rc : seekRc;
}

ResultCode StorageFile::ReadHeader(TFileHeader* header) {
    assert(header != nullptr);
    return WithHeaderPosition([&](File& file) { return ReadAtStart(file, header); });
}

template <typename Change>
ResultCode StorageFile::UpdateHeader(Change change) {
    if (m_writer == nullptr) {
        return RC_NO_WRITER;
    }
    return WithHeaderPosition([&](File& file) {
        TFileHeader header;
        if (ResultCode rc = ReadAtStart(file, &header); rc != RC_OK) {
            return rc;
        }
        change(header);
        return WriteAtStart(file, header);
    });
}

ResultCode StorageFile::SetLifenum(u32 lifenum) {
    return UpdateHeader([=](TFileHeader& header) { header.lifenum = lifenum; });
}

ResultCode StorageFile::SetClearOldRev(i64 rev) {
    return UpdateHeader([=](TFileHeader& header) { header.clearOldRev = rev; });
}

File StorageFile::CloseReader() {
    File locked = m_file.IsLocked() ? m_file.Release() : std::move(m_lockHolder);
    m_file.Close();
    assert(!IsOpen());
    return locked;
}

ResultCode StorageFile::Reopen(const std::string& path, i64 writePos) {
    assert(!IsOpen() && HasWriter());
    const ResultCode rc = OpenHandles(path, writePos);
    if (rc != RC_OK) {
        m_file.Close();
        m_lockHolder.Close();
        m_writer->CloseFile();
    }
    return rc;
}

ResultCode StorageFile::OpenHandles(const std::string& path, i64 writePos) {
    assert(writePos >= kFirstItemOffset);
    File opened;
    if (ResultCode rc = OpenAndCheckFile(path, {.writeThrough = m_state.writeThrough}, &opened);
        rc != RC_OK) {
        return rc;
    }
    m_file = platform::TrackedFile(std::move(opened), kFileHeaderSize);
    if (m_fileLock && !m_lockHolder.IsOpen()) {
        if (ResultCode rc = LockForWriting(m_file.Raw(), path, NoLocks::kSilent); rc != RC_OK) {
            return rc;
        }
    }
    i64 size = 0;
    if (ResultCode rc = GetSizeOf(m_file.Raw(), path, &size); rc != RC_OK) {
        return rc;
    }
    m_state.fileSize = size;
    if (ResultCode rc = m_writer->ReopenFile(path, m_state.writeThrough); rc != RC_OK) {
        return rc;
    }
    if (ResultCode rc = m_writer->SetWritePos(writePos, true); rc != RC_OK) {
        return rc;
    }
    InvalidateReads();
    return RC_OK;
}

void StorageFile::TakeReader(platform::TrackedFile&& reader, i64 size) {
    assert(IsReadOnly());
    m_file = std::move(reader);
    m_state.fileSize = size;
    InvalidateReads();
}

}  // namespace k9erepl
