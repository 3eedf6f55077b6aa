// The way from an exported function to the storage behind its handle: it tests the handle, keeps a
// forked child away from its parent's storage, and lets no exception out. Used by exports.cpp for
// every function that takes a handle, except K9eReplStorageClose, which must work in a child, too.
#ifndef K9EREPL_API_EXPORTED_CALL_H
#define K9EREPL_API_EXPORTED_CALL_H

#include "engine/repl_storage.h"
#include "support/exception_barrier.h"
#include "support/result.h"

namespace k9erepl {

// The storage behind a handle. A handle is the address of the object's first interface; no handle
// is ever looked up in a table, so one that was closed too often is the client's error.
// REQUIRES: handle is not null.
inline CK9eReplStorage& StorageOf(void* handle) {
    return static_cast<CK9eReplStorage&>(*static_cast<IK9eReplStorage*>(handle));
}

// Calls work(storage) and returns its result. Returns RC_INVALID_ARG for a null handle and
// RC_WRONG_STATE in a forked child, without a message and before any lock is taken. An exception is
// logged as the end of `function`, the exported function's name, and becomes a code (see
// EndException). By then the storage may be gone: a callback may have closed the last handle before
// it threw, so nothing touches the storage behind `work`. Takes no lock itself; the storage does.
template <typename Work>
[[nodiscard]] ResultCode CallStorage(const char* function, void* handle, Work work) {
    if (handle == nullptr) {
        return RC_INVALID_ARG;
    }
    CK9eReplStorage& storage = StorageOf(handle);
    if (!storage.BelongsToThisProcess()) [[unlikely]] {
        return RC_WRONG_STATE;
    }
    return WithoutExceptions(function, [&] { return work(storage); });
}

}  // namespace k9erepl

#endif  // K9EREPL_API_EXPORTED_CALL_H
