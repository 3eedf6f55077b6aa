// How a host's calls of the storage file, which K9eReplStorageGetLLStorage hands out, become calls
// of the storage. The storage file makes them (solid/host_scan.cpp).
#include "engine/repl_storage.h"

namespace k9erepl {

u32 CK9eReplStorage::FileOwner::RunAsCall(u32 (*work)(void* ctx), void* ctx) {
    // Given back behind the lock: a callback may close the storage's last handle, and the storage,
    // the lock and the file shall live until the call has left them.
    struct Reference {
        CK9eReplStorage& storage;
        explicit Reference(CK9eReplStorage& s) : storage(s) { storage.AddRef(); }
        ~Reference() { storage.Release(); }
        Reference(const Reference&) = delete;
        Reference& operator=(const Reference&) = delete;
    };
    const Reference reference(m_storage);
    const Guard guard(m_storage.m_lock);
    return work(ctx);
}

}  // namespace k9erepl
