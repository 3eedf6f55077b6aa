// The scan of the storage file for hosts: IK9eReplLLStorage::ScanFile, which
// K9eReplStorageGetLLStorage hands out. It may come at any time and from any thread.
#include "solid/solid_storage.h"
#include "support/log.h"

namespace k9erepl {

namespace {

// Hands items on to the host as long as they lie where the scan looks for them.
struct HostCallbacks {
    const FileScanCallbacks& host;
    const u64& generation;
    const u64 generationBefore;

    u32 Result(u32 hostRc) const {
        return hostRc == RC_OK && generation != generationBefore ? u32{RC_ENUM_STOP} : hostRc;
    }
    static std::uint32_t OnRecord(std::uint64_t offset, const K9eReplRec* rec, void* ctx) {
        const auto& self = *static_cast<const HostCallbacks*>(ctx);
        return self.Result(self.host.record(offset, rec, self.host.ctx));
    }
    static std::uint32_t OnCommit(void* ctx, std::int64_t clearRev, std::int64_t commitRev) {
        const auto& self = *static_cast<const HostCallbacks*>(ctx);
        return self.Result(self.host.commit(self.host.ctx, clearRev, commitRev));
    }
};

}  // namespace

u32 CSolidStorage::ScanFile(K9eReplScanRecordCb recordCb, K9eReplScanCommitCb commitCb, void* ctx) {
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

u32 CSolidStorage::ScanForHost(const FileScanCallbacks& callbacks) {
    if (!IsOpen()) {
        return RC_NO_WRITER;
    }
    if (m_inUse && m_writer != nullptr) {
        if (u32 rc = CompleteAsyncTasks(); rc != RC_OK) {
            return rc;
        }
    }
    HostCallbacks checked{callbacks, m_layoutGeneration, m_layoutGeneration};
    if (IsReadOnly()) {
        return ScanLiveForHost({&HostCallbacks::OnRecord, &HostCallbacks::OnCommit, &checked});
    }
    // Before the first scan the write position is the file's size.
    FileScan scan(m_file, {.fileSize = FileSize(), .dataEnd = m_state.writePos},
                  {&HostCallbacks::OnRecord, &HostCallbacks::OnCommit, &checked});
    const u32 rc = scan.Run(kFirstCommitOffset, false);
    if (m_inUse) {
        return rc;
    }
    InvalidateReads();
    return rc == RC_OK ? TakeScanEnd(scan.GetResult()) : rc;
}

}  // namespace k9erepl
