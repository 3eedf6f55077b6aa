/* A client in C99: the header compiles as such, and every function can be called. Run by
 * client_test.cpp. */
#include <k9erepl/storage.h>

#include <stddef.h>
#include <string.h>

#include "api/c99_client.h"

static uint32_t K9EREPL_CALL CountRecord(const K9eReplRec* rec, void* cbContext) {
    uint32_t* bytes = (uint32_t*)cbContext;
    *bytes += rec->dataSize;
    return 0;
}

static void K9EREPL_CALL KeepRevision(int64_t lastRev, void* cbContext) {
    *(int64_t*)cbContext = lastRev;
}

/* A record with four bytes of data. */
static K9eReplRec* MakeRecord(unsigned char* memory) {
    K9eReplRec* rec = (K9eReplRec*)memory;
    rec->rev = 0;
    rec->userWord = 0;
    rec->dataSize = 4;
    memcpy(rec->data, "data", 4);
    return rec;
}

static const char* UseTransactions(void* handle) {
    unsigned char memory[sizeof(K9eReplRec) + 4];
    K9eReplRec* rec = MakeRecord(memory);
    int64_t rev = 0;
    if (K9eReplStorageBeginTransaction(handle) != RC_OK ||
        K9eReplStorageInsert(handle, rec) != RC_OK || rec->rev != 1) {
        return "Insert";
    }
    rec->rev = 5;
    if (K9eReplStorageInsertP(handle, rec) != RC_OK || K9eReplStorageCommit(handle) != RC_OK) {
        return "InsertP or Commit";
    }
    if (K9eReplStorageBeginTransaction(handle) != RC_OK ||
        K9eReplStorageRollback(handle) != RC_OK) {
        return "Rollback";
    }
    if (K9eReplStorageGetNextRev(handle, &rev) != RC_OK || rev != 6) {
        return "GetNextRev";
    }
    return NULL;
}

static const char* UseMarks(void* handle) {
    uint32_t lifenum = 0;
    int64_t mark = -1;
    if (K9eReplStorageSetLifenum(handle, 3) != RC_OK ||
        K9eReplStorageGetLifenum(handle, &lifenum) != RC_OK || lifenum != 3) {
        return "Lifenum";
    }
    if (K9eReplStorageGetClearOldRev(handle, &mark) != RC_OK || mark != 0) {
        return "GetClearOldRev";
    }
    if (K9eReplStorageClearOldRev(handle, 2, K9EREPL_CLEAR_MARK) != RC_OK ||
        K9eReplStorageGetClearOldRev(handle, &mark) != RC_OK || mark != 2) {
        return "the revision mark";
    }
    return NULL;
}

/* The records 1 and 5 are there. */
static const char* UseClears(void* handle) {
    uint32_t bytes = 0;
    if (K9eReplStorageClearOldRev(handle, 2, K9EREPL_CLEAR_LOGICAL) != RC_OK ||
        K9eReplStorageEnumRecords(handle, 1, 5, CountRecord, &bytes) != RC_OK || bytes != 4) {
        return "ClearOldRev";
    }
    bytes = 0;
    if (K9eReplStorageClearAll(handle, K9EREPL_CLEAR_LOGICAL) != RC_OK ||
        K9eReplStorageEnumRecords(handle, 1, 5, CountRecord, &bytes) != RC_OK || bytes != 0) {
        return "ClearAll";
    }
    return NULL;
}

static const char* UseLoaded(void* handle) {
    int64_t flushed = 0;
    int64_t written = 0;
    uint32_t bytes = 0;
    void* file = NULL;
    const char* failed = NULL;
    K9eReplStorageSetOnFlushCallback(handle, KeepRevision, &flushed);
    K9eReplStorageSetOnWriteToFileCallback(handle, KeepRevision, &written);
    failed = UseTransactions(handle);
    if (failed == NULL) {
        failed = UseMarks(handle);
    }
    if (failed != NULL) {
        return failed;
    }
    if (flushed != 5 || written != 5) {
        return "callbacks";
    }
    if (K9eReplStorageEnumRecords(handle, 1, 5, CountRecord, &bytes) != RC_OK || bytes != 8) {
        return "EnumRecords";
    }
    if (K9eReplStorageGetLLStorage(handle, &file) != RC_FILE_NOT_OPEN) {
        return "GetLLStorage";
    }
    return UseClears(handle);
}

const char* UseEverything(void) {
    void* handle = NULL;
    void* duplicate = NULL;
    const char* failed = NULL;
    if (K9eReplStorageStartup() != RC_OK) {
        return "Startup";
    }
    if (K9eReplStorageOpen("cache_type=AllInMem;flush_mode=NoFlush;file=:memory:", &handle) !=
            RC_OK ||
        K9eReplStorageLoad(handle) != RC_OK) {
        return "Open or Load";
    }
    if (K9eReplStorageDuplicateHandle(handle, &duplicate) != RC_OK || duplicate != handle) {
        return "DuplicateHandle";
    }
    failed = UseLoaded(handle);
    if (failed == NULL && K9eReplStorageTruncate(handle) != RC_OK) {
        failed = "Truncate";
    }
    if (K9eReplStorageClose(duplicate) != RC_OK || K9eReplStorageClose(handle) != RC_OK) {
        failed = "Close";
    }
    K9eReplStorageCleanup();
    return failed;
}
