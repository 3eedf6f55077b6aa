// The exported functions: each tests its pointers and forwards to the storage object, whose result
// it returns unchanged. The contract is in <k9erepl/storage.h>.
#include <k9erepl/storage_interfaces.h>

#include <new>

#include "engine/repl_storage.h"
#include "solid/storage_file_admin.h"
#include "support/log.h"

using k9erepl::CK9eReplStorage;

namespace {

IK9eReplStorage* FromHandle(void* handle) {
    return static_cast<IK9eReplStorage*>(handle);
}

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

// Answers RC_NO_MEMORY for an allocation that failed inside `function`, which does `what`.
template <typename Function>
uint32_t WithoutBadAlloc(const char* what, const char* connStr, Function function) {
    try {
        return function();
    } catch (const std::bad_alloc&) {
        LOG_ERROR_CODE(RC_NO_MEMORY, k9erepl::kLogStorage,
                       "Out of memory while %s storage file;conn-str %s", what, connStr);
        return RC_NO_MEMORY;
    }
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
    return WithoutBadAlloc("creating", connStr,
                           [=] { return k9erepl::CreateStorageFile(connStr, flags); });
}

uint32_t K9EREPL_CALL K9eReplStorageDelete(const char* connStr) {
    if (connStr == nullptr) {
        return RC_INVALID_ARG;
    }
    return WithoutBadAlloc("deleting", connStr, [=] { return k9erepl::DeleteStorage(connStr); });
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
    if (const uint32_t rc = storage->Open(connStr); rc != RC_OK) {
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
    FromHandle(handle)->Release();
    return RC_OK;
}

uint32_t K9EREPL_CALL K9eReplStorageDuplicateHandle(void* handle, void** outHandle) {
    if (handle == nullptr || outHandle == nullptr) {
        return RC_INVALID_ARG;
    }
    FromHandle(handle)->AddRef();
    *outHandle = handle;
    return RC_OK;
}

uint32_t K9EREPL_CALL K9eReplStorageLoad(void* handle) {
    return handle == nullptr ? RC_INVALID_ARG : FromHandle(handle)->Load();
}

uint32_t K9EREPL_CALL K9eReplStorageTruncate(void* handle) {
    return handle == nullptr ? RC_INVALID_ARG : FromHandle(handle)->Truncate();
}

uint32_t K9EREPL_CALL K9eReplStorageBeginTransaction(void* handle) {
    return handle == nullptr ? RC_INVALID_ARG : FromHandle(handle)->BeginTransaction();
}

uint32_t K9EREPL_CALL K9eReplStorageCommit(void* handle) {
    return handle == nullptr ? RC_INVALID_ARG : FromHandle(handle)->Commit();
}

uint32_t K9EREPL_CALL K9eReplStorageRollback(void* handle) {
    return handle == nullptr ? RC_INVALID_ARG : FromHandle(handle)->Rollback();
}

uint32_t K9EREPL_CALL K9eReplStorageInsert(void* handle, K9eReplRec* rec) {
    return handle == nullptr || rec == nullptr ? RC_INVALID_ARG : FromHandle(handle)->Insert(rec);
}

uint32_t K9EREPL_CALL K9eReplStorageInsertP(void* handle, K9eReplRec* rec) {
    return handle == nullptr || rec == nullptr ? RC_INVALID_ARG : FromHandle(handle)->InsertP(rec);
}

uint32_t K9EREPL_CALL K9eReplStorageEnumRecords(void* handle, int64_t fromRev, int64_t toRev,
                                                K9eReplEnumCb cb, void* cbContext) {
    return handle == nullptr ? RC_INVALID_ARG
                             : FromHandle(handle)->EnumRecords(fromRev, toRev, cb, cbContext);
}

uint32_t K9EREPL_CALL K9eReplStorageSetLifenum(void* handle, uint32_t lifenum) {
    return handle == nullptr ? RC_INVALID_ARG : FromHandle(handle)->SetLifenum(lifenum);
}

uint32_t K9EREPL_CALL K9eReplStorageGetLifenum(void* handle, uint32_t* out) {
    return handle == nullptr || out == nullptr ? RC_INVALID_ARG
                                               : FromHandle(handle)->GetLifenum(out);
}

uint32_t K9EREPL_CALL K9eReplStorageGetNextRev(void* handle, int64_t* out) {
    return handle == nullptr || out == nullptr ? RC_INVALID_ARG
                                               : FromHandle(handle)->GetNextRev(out);
}

uint32_t K9EREPL_CALL K9eReplStorageClearOldRev(void* handle, int64_t rev, uint32_t mode) {
    return handle == nullptr ? RC_INVALID_ARG : FromHandle(handle)->ClearOldRev(rev, mode);
}

uint32_t K9EREPL_CALL K9eReplStorageGetClearOldRev(void* handle, int64_t* out) {
    return handle == nullptr || out == nullptr ? RC_INVALID_ARG
                                               : FromHandle(handle)->GetClearOldRev(out);
}

uint32_t K9EREPL_CALL K9eReplStorageClearAll(void* handle, uint32_t mode) {
    if (handle == nullptr) {
        return RC_INVALID_ARG;
    }
    int64_t nextRev = 0;
    if (const uint32_t rc = FromHandle(handle)->GetNextRev(&nextRev); rc != RC_OK) {
        return rc;
    }
    return FromHandle(handle)->ClearOldRev(nextRev, mode);
}

uint32_t K9EREPL_CALL K9eReplStorageSetOnFlushCallback(void* handle, K9eReplFlushCb cb,
                                                       void* cbContext) {
    return handle == nullptr ? RC_INVALID_ARG
                             : FromHandle(handle)->SetOnFlushCallback(cb, cbContext);
}

uint32_t K9EREPL_CALL K9eReplStorageSetOnWriteToFileCallback(void* handle, K9eReplFlushCb cb,
                                                             void* cbContext) {
    return handle == nullptr ? RC_INVALID_ARG
                             : FromHandle(handle)->SetOnWriteToFileCallback(cb, cbContext);
}

uint32_t K9EREPL_CALL K9eReplStorageGetLLStorage(void* handle, void** out) {
    if (handle == nullptr || out == nullptr) {
        return RC_INVALID_ARG;
    }
    auto& solid = static_cast<CK9eReplStorage*>(FromHandle(handle))->SolidStorage();
    if (!solid.IsOpen()) {
        return RC_FILE_NOT_OPEN;
    }
    *out = static_cast<IK9eReplLLStorage*>(&solid);
    return RC_OK;
}

}  // extern "C"
