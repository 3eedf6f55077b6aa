// The way of every exported function to the storage behind its handle: it tests the handle, keeps a
// forked child away from its parent's storage, and lets no exception out.
#ifndef K9EREPL_API_EXPORTED_CALL_H
#define K9EREPL_API_EXPORTED_CALL_H

#include "engine/repl_storage.h"
#include "support/exception_barrier.h"

namespace k9erepl {

// A handle is the address of the object's first interface.
inline CK9eReplStorage& StorageOf(void* handle) {
    return static_cast<CK9eReplStorage&>(*static_cast<IK9eReplStorage*>(handle));
}

// Returns what `work` returns for the storage, RC_INVALID_ARG for a null handle, RC_WRONG_STATE in
// a forked child, or the code of an exception, which is logged as the end of `function`. By then
// the storage may be gone: a callback may have closed the last handle before it threw.
template <typename Work>
u32 CallStorage(const char* function, void* handle, Work work) {
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
