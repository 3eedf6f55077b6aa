// The storage file as the engine and hosts see it: forwards to the objects that it owns.
#include "solid/solid_storage.h"

#include <cassert>
#include <new>

#include "solid/file_checks.h"
#include "solid/host_scan.h"
#include "solid/whole_check.h"

namespace k9erepl {

CSolidStorage::CSolidStorage(SolidStorageOwner* owner) : m_owner(owner) {}

CSolidStorage::~CSolidStorage() {
    // Dropped: a caller that must know whether the writing thread still runs has called Close.
    (void)Close();
}

ResultCode CSolidStorage::Open(const std::string& path, const char* connStr, FileUse use) {
    if (IsOpen()) {
        return RC_ALREADY;
    }
    ResultCode rc = RC_OK;
    try {
        rc = OpenParts(path, connStr, use);
    } catch (const std::bad_alloc&) {
        rc = RC_NO_MEMORY;
    }
    if (rc != RC_OK) {
        (void)Close();  // dropped: nothing was written, so no thread can be busy
    }
    return rc;
}

ResultCode CSolidStorage::OpenParts(const std::string& path, const char* connStr, FileUse use) {
    if (ResultCode rc = m_file.Open(path, connStr, use); rc != RC_OK) {
        return rc;
    }
    return m_enum.Init(connStr);
}

bool CSolidStorage::Close() {
    assert(!m_enum.IsRunning());
    const bool ended = m_file.Close();
    m_enum.Reset();
    m_live.Reset();
    m_load.Reset();
    m_tail.Reset();
    return ended;
}

void CSolidStorage::LeaveToParent() {
    m_file.LeaveToParent();
}

ResultCode CSolidStorage::GetLifenum(u32* lifenum) {
    assert(lifenum != nullptr);
    TFileHeader header;
    const ResultCode rc = m_file.ReadHeader(&header);
    if (rc == RC_OK) {
        *lifenum = header.lifenum;
    }
    return rc;
}

ResultCode CSolidStorage::GetClearOldRev(i64* rev) {
    assert(rev != nullptr);
    TFileHeader header;
    const ResultCode rc = m_file.ReadHeader(&header);
    if (rc == RC_OK) {
        *rev = header.clearOldRev;
    }
    return rc;
}

ResultCode CSolidStorage::SetLifenum(u32 lifenum) {
    return m_file.SetLifenum(lifenum);
}

ResultCode CSolidStorage::SetClearOldRev(i64 rev) {
    return m_file.SetClearOldRev(rev);
}

u32 CSolidStorage::SetWrittenRevisionCallback(K9eReplFlushCb callback, void* context) {
    m_file.State().onWritten.Set(callback, context);
    return RC_OK;
}

ResultCode CSolidStorage::ScanFile(K9eReplScanRecordCb recordCb, K9eReplScanCommitCb commitCb,
                                   void* ctx) {
    if (recordCb == nullptr || commitCb == nullptr) {
        return RC_INVALID_ARG;
    }
    struct Call {
        CSolidStorage& file;
        const FileScanCallbacks callbacks;
    } call{*this, {recordCb, commitCb, ctx}};
    const auto run = [](void* context) -> u32 {
        auto& args = *static_cast<Call*>(context);
        return args.file.ScanForHost(args.callbacks);
    };
    return m_owner == nullptr ? run(&call) : m_owner->RunAsCall(run, &call);
}

ResultCode CSolidStorage::ScanForHost(const FileScanCallbacks& callbacks) {
    return HostScan(m_file, m_live, m_load).Run(callbacks);
}

ResultCode CSolidStorage::ScanFileFrom(K9eReplScanRecordCb recordCb, K9eReplScanCommitCb commitCb,
                                       i64 startOffset, void* ctx) {
    return m_load.ScanFrom({recordCb, commitCb, ctx}, startOffset);
}

ResultCode CSolidStorage::Refresh(bool* goesOn) {
    assert(!m_enum.IsRunning());
    return m_live.Refresh(m_load.End(), goesOn);
}

ResultCode CSolidStorage::ScanOn(K9eReplScanRecordCb recordCb, K9eReplScanCommitCb commitCb,
                                 void* ctx) {
    return m_load.ScanOn({recordCb, commitCb, ctx});
}

ResultCode CSolidStorage::ReadMarks(u32* lifenum, i64* clearOldRev) {
    return m_live.ReadMarks(lifenum, clearOldRev);
}

ResultCode CSolidStorage::CheckContent() {
    return m_live.CheckContent();
}

void CSolidStorage::KeepTailIfDamaged(TailCare care) {
    m_tail.KeepIfDamaged(care);
}

ResultCode CSolidStorage::CheckWhole(i64 loadedFrom) {
    return WholeCheck(m_file, m_live, m_load, m_tail).Run(loadedFrom);
}

ResultCode CSolidStorage::EnumFileRecs(const FileEnumRange& range, FileItemVisitor visitor,
                                       void* ctx, bool* completed) {
    return m_enum.Run(range, visitor, ctx, completed);
}

ResultCode CSolidStorage::ReadFirstCommitInfo(i64* commitRev, bool* hasItems) {
    return k9erepl::ReadFirstCommitInfo(m_file, commitRev, hasItems);
}

ResultCode CSolidStorage::CheckRecordAt(i64 rev, i64 offset) {
    return k9erepl::CheckRecordAt(m_file, rev, offset);
}

ResultCode CSolidStorage::FindRevBefore(i64 offset, i64* rev) {
    return k9erepl::FindRevBefore(m_file, offset, rev);
}

ResultCode CSolidStorage::RollbackWrites() {
    return m_writes.Rollback();
}

ResultCode CSolidStorage::ClearUndone() {
    return m_writes.ClearUndone();
}

ResultCode CSolidStorage::CompleteAsyncTasks() {
    return m_file.CompleteAsyncTasks();
}

ResultCode CSolidStorage::WaitReleaseBlock() {
    return m_file.HasWriter() ? m_file.Writer().WaitReleaseBlock() : u32{RC_NO_WRITER};
}

ResultCode CSolidStorage::SetClearRev(i64 rev) {
    return m_clear.SetClearRev(rev);
}

ResultCode CSolidStorage::TruncateToClearRev(i64 rev, u32 lifenum, i64 clearOldRev) {
    return m_clear.TruncateToClearRev(rev, lifenum, clearOldRev);
}

ResultCode CSolidStorage::Squeeze(const SqueezeRequest& request, i64* shift) {
    assert(shift != nullptr);
    if (!m_file.IsOpen() || !m_file.HasWriter()) {
        return RC_NO_WRITER;
    }
    try {
        return k9erepl::Squeeze(m_file, m_clear, request).Run(shift);
    } catch (const std::bad_alloc&) {
        return RC_NO_MEMORY;
    }
}

ResultCode CSolidStorage::GetFlushedRev(i64* rev) const {
    assert(rev != nullptr);
    if (!m_file.HasWriter() && !IsOpen()) {
        return RC_NO_WRITER;
    }
    *rev = m_file.State().lastFlushedRev;
    return RC_OK;
}

}  // namespace k9erepl
