// How a host's calls of the storage file, which K9eReplStorageGetLLStorage hands out, become calls
// of the storage. The storage file makes them (solid/host_scan.cpp).
#include "engine/repl_storage.h"

namespace k9erepl {

u32 CK9eReplStorage::FileOwner::RunAsCall(u32 (*work)(void* ctx), void* ctx) {
    return m_storage.AsCall("ScanFile", [&] {
        const Guard guard(m_storage.m_lock);
        return work(ctx);
    });
}

}  // namespace k9erepl
