// The scan for hosts; see the header.
#include "solid/host_scan.h"

#include <cassert>

namespace k9erepl {

namespace {

// Hands items on to the host, and ends the scan when a callback has moved the items.
struct HostCallbacks {
    const FileScanCallbacks& host;
    const u64& generation;
    const u64 generationBefore;

    u32 Result(ResultCode hostRc) const {
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

ResultCode HostScan::Run(const FileScanCallbacks& callbacks) {
    assert(callbacks.record != nullptr && callbacks.commit != nullptr);
    if (!m_file.IsOpen()) {
        return RC_NO_WRITER;
    }
    if (m_file.InUse() && m_file.HasWriter()) {
        if (ResultCode rc = m_file.CompleteAsyncTasks(); rc != RC_OK) {
            return rc;
        }
    }
    const u64& generation = m_file.LayoutGeneration();
    HostCallbacks checked{callbacks, generation, generation};
    const FileScanCallbacks checking{&HostCallbacks::OnRecord, &HostCallbacks::OnCommit, &checked};
    if (m_file.IsReadOnly()) {
        return m_live.ScanForHost(checking, m_load.End());
    }
    // Before the first scan the write position is the file's size.
    FileScan scan(m_file.Reader(),
                  {.fileSize = m_file.FileSize(), .dataEnd = m_file.State().writePos}, checking);
    const ResultCode rc = scan.Run(kFirstCommitOffset, false);
    if (m_file.InUse()) {
        return rc;
    }
    m_file.InvalidateReads();
    return rc == RC_OK ? m_load.TakeEnd(scan.GetResult()) : rc;
}

}  // namespace k9erepl
