/* A client in C99: the header compiles as such, and every function can be called. Run by
 * client_test.cpp. */
#include <k9erepl/storage.h>

#include <stddef.h>
#include <string.h>

/* Null when everything went as it should, else what did not. */
const char* UseEverything(void);

#define REQUIRE(condition)     \
    do {                       \
        if (!(condition)) {    \
            return #condition; \
        }                      \
    } while (0)

static uint32_t K9EREPL_CALL CountRecord(const K9eReplRec* rec, void* cbContext) {
    uint32_t* bytes = (uint32_t*)cbContext;
    *bytes += rec->dataSize;
    return 0;
}

static void K9EREPL_CALL KeepRevision(int64_t lastRev, void* cbContext) {
    *(int64_t*)cbContext = lastRev;
}

/* The bytes of the records 1 and 5, as far as they are there. */
static uint32_t CountBytes(void* handle) {
    uint32_t bytes = 0;
    return K9eReplStorageEnumRecords(handle, 1, 5, CountRecord, &bytes) == RC_OK ? bytes : 999;
}

static const char* UseTransactions(void* handle) {
    unsigned char memory[sizeof(K9eReplRec) + 4];
    K9eReplRec* rec = (K9eReplRec*)memory;
    int64_t rev = 0;
    rec->rev = 0;
    rec->userWord = 0;
    rec->dataSize = 4;
    memcpy(rec->data, "data", 4);
    REQUIRE(K9eReplStorageBeginTransaction(handle) == RC_OK);
    REQUIRE(K9eReplStorageInsert(handle, rec) == RC_OK && rec->rev == 1);
    rec->rev = 5;
    REQUIRE(K9eReplStorageInsertP(handle, rec) == RC_OK);
    REQUIRE(K9eReplStorageCommit(handle) == RC_OK);
    REQUIRE(K9eReplStorageBeginTransaction(handle) == RC_OK);
    REQUIRE(K9eReplStorageRollback(handle) == RC_OK);
    REQUIRE(K9eReplStorageGetNextRev(handle, &rev) == RC_OK && rev == 6);
    return NULL;
}

static const char* UseMarksAndClears(void* handle) {
    uint32_t lifenum = 0;
    int64_t mark = -1;
    REQUIRE(K9eReplStorageSetLifenum(handle, 3) == RC_OK);
    REQUIRE(K9eReplStorageGetLifenum(handle, &lifenum) == RC_OK && lifenum == 3);
    REQUIRE(K9eReplStorageGetClearOldRev(handle, &mark) == RC_OK && mark == 0);
    REQUIRE(K9eReplStorageClearOldRev(handle, 2, K9EREPL_CLEAR_MARK) == RC_OK);
    REQUIRE(K9eReplStorageGetClearOldRev(handle, &mark) == RC_OK && mark == 2);
    REQUIRE(CountBytes(handle) == 8);
    REQUIRE(K9eReplStorageClearOldRev(handle, 2, K9EREPL_CLEAR_LOGICAL) == RC_OK);
    REQUIRE(CountBytes(handle) == 4);
    REQUIRE(K9eReplStorageClearAll(handle, K9EREPL_CLEAR_LOGICAL) == RC_OK);
    REQUIRE(CountBytes(handle) == 0);
    return NULL;
}

static const char* UseLoaded(void* handle) {
    int64_t flushed = 0;
    int64_t written = 0;
    void* file = NULL;
    const char* failed = NULL;
    K9eReplStorageSetOnFlushCallback(handle, KeepRevision, &flushed);
    K9eReplStorageSetOnWriteToFileCallback(handle, KeepRevision, &written);
    failed = UseTransactions(handle);
    if (failed == NULL) {
        failed = UseMarksAndClears(handle);
    }
    REQUIRE(failed != NULL || (flushed == 5 && written == 5));
    REQUIRE(failed != NULL || K9eReplStorageGetLLStorage(handle, &file) == RC_FILE_NOT_OPEN);
    return failed;
}

const char* UseEverything(void) {
    void* handle = NULL;
    void* duplicate = NULL;
    const char* failed = NULL;
    REQUIRE(K9eReplStorageStartup() == RC_OK);
    REQUIRE(K9eReplStorageOpen("cache_type=AllInMem;flush_mode=NoFlush;file=:memory:", &handle) ==
            RC_OK);
    REQUIRE(K9eReplStorageLoad(handle) == RC_OK);
    REQUIRE(K9eReplStorageDuplicateHandle(handle, &duplicate) == RC_OK && duplicate == handle);
    failed = UseLoaded(handle);
    REQUIRE(failed != NULL || K9eReplStorageTruncate(handle) == RC_OK);
    REQUIRE(K9eReplStorageClose(duplicate) == RC_OK && K9eReplStorageClose(handle) == RC_OK);
    K9eReplStorageCleanup();
    return failed;
}
