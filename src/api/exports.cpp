// The exported functions: each tests its pointers and forwards to the storage object, whose result
// it returns unchanged, by way of exported_call.h. The contract is in <k9erepl/storage.h>.
#include <k9erepl/storage_interfaces.h>

#include <new>

#include "api/exported_call.h"
#include "engine/repl_storage.h"
#include "index/index_file.h"
#include "solid/storage_file_admin.h"
#include "support/exception_barrier.h"
#include "support/log.h"

using k9erepl::CallStorage;
using k9erepl::CK9eReplStorage;
using k9erepl::WithoutExceptions;

namespace {

// A handle is the address of the object's first interface.
void* ToHandle(IK9eReplStorage* storage) {
    return storage;
}

CK9eReplStorage* NewStorage() {
    try {
        return new CK9eReplStorage;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

// Returns what `function` returns, or the code of an exception inside it. `what` names the
// operation in the message: "creating" or "deleting".
template <typename Function>
uint32_t OnFiles(const char* what, const char* connStr, Function function) {
    try {
        return function();
    } catch (const std::bad_alloc&) {
        LOG_ERROR_CODE(RC_NO_MEMORY, k9erepl::kLogStorage,
                       "Out of memory while %s storage file;conn-str %s", what, connStr);
        return RC_NO_MEMORY;
    } catch (...) {
        return k9erepl::EndException(what);
    }
}

// Deletes the index file of a storage that is replaced or deleted. A failure is logged there, and
// is no reason to keep the storage: a load uses an index only as far as the storage file confirms
// it.
void RemoveIndexFile(const char* connStr) {
    (void)k9erepl::DeleteIndexFile(connStr);
}

}  // namespace

extern "C" {

uint32_t K9EREPL_CALL K9eReplStorageStartup(void) {
    return RC_OK;
}

void K9EREPL_CALL K9eReplStorageCleanup(void) {}

uint32_t K9EREPL_CALL K9eReplStorageCreate(const char* connStr, uint32_t flags) {
    if (connStr == nullptr) {
        return RC_INVALID_ARG;
    }
    return OnFiles("creating", connStr,
                   [=] { return k9erepl::CreateStorageFile(connStr, flags, &RemoveIndexFile); });
}

uint32_t K9EREPL_CALL K9eReplStorageDelete(const char* connStr) {
    if (connStr == nullptr) {
        return RC_INVALID_ARG;
    }
    return OnFiles("deleting", connStr,
                   [=] { return k9erepl::DeleteStorage(connStr, &RemoveIndexFile); });
}

uint32_t K9EREPL_CALL K9eReplStorageOpen(const char* connStr, void** outHandle) {
    if (connStr == nullptr || outHandle == nullptr) {
        return RC_INVALID_ARG;
    }
    CK9eReplStorage* storage = NewStorage();
    if (storage == nullptr) {
        LOG_ERROR_CODE(RC_NO_MEMORY, k9erepl::kLogStorage, "Failed to init storage;conn-str %s",
                       connStr);
        return RC_NO_MEMORY;
    }
    if (const uint32_t rc =
            WithoutExceptions("K9eReplStorageOpen", [=] { return storage->Open(connStr); });
        rc != RC_OK) {
        LOG_ERROR_CODE(rc, k9erepl::kLogStorage, "Failed to init storage;conn-str %s", connStr);
        storage->Release();
        return rc;
    }
    *outHandle = ToHandle(storage);
    return RC_OK;
}

uint32_t K9EREPL_CALL K9eReplStorageClose(void* handle) {
    if (handle == nullptr) {
        return RC_INVALID_ARG;
    }
    k9erepl::StorageOf(handle).Release();
    return RC_OK;
}

uint32_t K9EREPL_CALL K9eReplStorageDuplicateHandle(void* handle, void** outHandle) {
    if (outHandle == nullptr) {
        return RC_INVALID_ARG;
    }
    return CallStorage("K9eReplStorageDuplicateHandle", handle, [&](CK9eReplStorage& storage) {
        storage.AddRef();
        *outHandle = handle;
        return uint32_t{RC_OK};
    });
}

uint32_t K9EREPL_CALL K9eReplStorageLoad(void* handle) {
    return CallStorage("K9eReplStorageLoad", handle,
                       [](CK9eReplStorage& storage) { return storage.Load(); });
}

uint32_t K9EREPL_CALL K9eReplStorageTruncate(void* handle) {
    return CallStorage("K9eReplStorageTruncate", handle,
                       [](CK9eReplStorage& storage) { return storage.Truncate(); });
}

uint32_t K9EREPL_CALL K9eReplStorageBeginTransaction(void* handle) {
    return CallStorage("K9eReplStorageBeginTransaction", handle,
                       [](CK9eReplStorage& storage) { return storage.BeginTransaction(); });
}

uint32_t K9EREPL_CALL K9eReplStorageCommit(void* handle) {
    return CallStorage("K9eReplStorageCommit", handle,
                       [](CK9eReplStorage& storage) { return storage.Commit(); });
}

uint32_t K9EREPL_CALL K9eReplStorageRollback(void* handle) {
    return CallStorage("K9eReplStorageRollback", handle,
                       [](CK9eReplStorage& storage) { return storage.Rollback(); });
}

uint32_t K9EREPL_CALL K9eReplStorageInsert(void* handle, K9eReplRec* rec) {
    if (rec == nullptr) {
        return RC_INVALID_ARG;
    }
    return CallStorage("K9eReplStorageInsert", handle,
                       [&](CK9eReplStorage& storage) { return storage.Insert(rec); });
}

uint32_t K9EREPL_CALL K9eReplStorageInsertP(void* handle, K9eReplRec* rec) {
    if (rec == nullptr) {
        return RC_INVALID_ARG;
    }
    return CallStorage("K9eReplStorageInsertP", handle,
                       [&](CK9eReplStorage& storage) { return storage.InsertP(rec); });
}

uint32_t K9EREPL_CALL K9eReplStorageEnumRecords(void* handle, int64_t fromRev, int64_t toRev,
                                                K9eReplEnumCb cb, void* cbContext) {
    return CallStorage("K9eReplStorageEnumRecords", handle, [&](CK9eReplStorage& storage) {
        return storage.EnumRecords(fromRev, toRev, cb, cbContext);
    });
}

uint32_t K9EREPL_CALL K9eReplStorageSetLifenum(void* handle, uint32_t lifenum) {
    return CallStorage("K9eReplStorageSetLifenum", handle,
                       [&](CK9eReplStorage& storage) { return storage.SetLifenum(lifenum); });
}

uint32_t K9EREPL_CALL K9eReplStorageGetLifenum(void* handle, uint32_t* out) {
    if (out == nullptr) {
        return RC_INVALID_ARG;
    }
    return CallStorage("K9eReplStorageGetLifenum", handle,
                       [&](CK9eReplStorage& storage) { return storage.GetLifenum(out); });
}

uint32_t K9EREPL_CALL K9eReplStorageGetNextRev(void* handle, int64_t* out) {
    if (out == nullptr) {
        return RC_INVALID_ARG;
    }
    return CallStorage("K9eReplStorageGetNextRev", handle,
                       [&](CK9eReplStorage& storage) { return storage.GetNextRev(out); });
}

uint32_t K9EREPL_CALL K9eReplStorageClearOldRev(void* handle, int64_t rev, uint32_t mode) {
    return CallStorage("K9eReplStorageClearOldRev", handle,
                       [&](CK9eReplStorage& storage) { return storage.ClearOldRev(rev, mode); });
}

uint32_t K9EREPL_CALL K9eReplStorageGetClearOldRev(void* handle, int64_t* out) {
    if (out == nullptr) {
        return RC_INVALID_ARG;
    }
    return CallStorage("K9eReplStorageGetClearOldRev", handle,
                       [&](CK9eReplStorage& storage) { return storage.GetClearOldRev(out); });
}

uint32_t K9EREPL_CALL K9eReplStorageClearAll(void* handle, uint32_t mode) {
    return CallStorage("K9eReplStorageClearAll", handle, [mode](CK9eReplStorage& storage) {
        int64_t nextRev = 0;
        const uint32_t rc = storage.GetNextRev(&nextRev);
        return rc == RC_OK ? storage.ClearOldRev(nextRev, mode) : rc;
    });
}

uint32_t K9EREPL_CALL K9eReplStorageSetOnFlushCallback(void* handle, K9eReplFlushCb cb,
                                                       void* cbContext) {
    return CallStorage("K9eReplStorageSetOnFlushCallback", handle, [&](CK9eReplStorage& storage) {
        return storage.SetOnFlushCallback(cb, cbContext);
    });
}

uint32_t K9EREPL_CALL K9eReplStorageSetOnWriteToFileCallback(void* handle, K9eReplFlushCb cb,
                                                             void* cbContext) {
    return CallStorage(
        "K9eReplStorageSetOnWriteToFileCallback", handle,
        [&](CK9eReplStorage& storage) { return storage.SetOnWriteToFileCallback(cb, cbContext); });
}

uint32_t K9EREPL_CALL K9eReplStorageGetLLStorage(void* handle, void** out) {
    if (out == nullptr) {
        return RC_INVALID_ARG;
    }
    return CallStorage("K9eReplStorageGetLLStorage", handle, [out](CK9eReplStorage& storage) {
        if (!storage.SolidStorage().IsOpen()) {
            return uint32_t{RC_FILE_NOT_OPEN};
        }
        *out = static_cast<IK9eReplLLStorage*>(&storage.SolidStorage());
        return uint32_t{RC_OK};
    });
}

}  // extern "C"
