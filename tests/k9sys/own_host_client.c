/* A client of the storage library that knows nothing of the system library: own_host_test.cpp runs
 * it with own_host.c in the place of the stand-in. Keeps three records in memory; ends with 0 when
 * everything went as it should, with the number of the step that did not otherwise. */
#include <k9erepl/storage.h>
#include <string.h>

static uint32_t K9EREPL_CALL CountRecord(const K9eReplRec* rec, void* context) {
    *(int*)context += rec->dataSize == 4 ? 1 : 0;
    return RC_OK;
}

static uint32_t InsertRecords(void* storage) {
    unsigned char room[sizeof(K9eReplRec) + 4];
    K9eReplRec* const rec = (K9eReplRec*)room;
    uint32_t rc = RC_OK;
    memset(room, 0, sizeof room);
    rec->dataSize = 4;
    for (int i = 0; i < 3 && rc == RC_OK; ++i) {
        rc = K9eReplStorageInsert(storage, rec);
    }
    return rc;
}

int main(void) {
    void* storage = 0;
    int records = 0;
    if (K9eReplStorageOpen("cache_type=AllInMem;flush_mode=NoFlush;file=:memory:", &storage)) {
        return 1;
    }
    if (K9eReplStorageLoad(storage) || K9eReplStorageBeginTransaction(storage)) {
        return 2;
    }
    if (InsertRecords(storage) || K9eReplStorageCommit(storage)) {
        return 3;
    }
    if (K9eReplStorageEnumRecords(storage, 1, 3, CountRecord, &records) || records != 3) {
        return 4;
    }
    return K9eReplStorageClose(storage) == RC_OK ? 0 : 5;
}
