/* Makes a storage, appends two records in one transaction, prints every record that it holds. Run
 * it twice, and the records of the first run are still there. The README shows this program. */
#include <k9erepl/storage.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static void Check(uint32_t code) {
    if (code != RC_OK) {
        fprintf(stderr, "the storage failed with code %u\n", code);
        exit(EXIT_FAILURE);
    }
}

static void Append(void* storage, const char* text) {
    K9eReplRec* rec = malloc(sizeof(K9eReplRec) + strlen(text));
    Check(rec == NULL ? RC_NO_MEMORY : RC_OK);
    rec->userWord = 0;
    rec->dataSize = (uint32_t)strlen(text);
    memcpy(rec->data, text, strlen(text));
    Check(K9eReplStorageInsert(storage, rec)); /* writes the revision into rec->rev */
    free(rec);
}

static uint32_t K9EREPL_CALL Print(const K9eReplRec* rec, void* context) {
    (void)context;
    printf("%lld: %.*s\n", (long long)rec->rev, (int)rec->dataSize, (const char*)rec->data);
    return 0; /* go on */
}

int main(int argc, char** argv) {
    const char* settings = argc > 1 ? argv[1] : "file=first.edb";
    void* storage = NULL;
    Check(K9eReplStorageCreate(settings, K9EREPL_CREATE_KEEP_EXISTING));
    Check(K9eReplStorageOpen(settings, &storage));
    Check(K9eReplStorageLoad(storage));
    Check(K9eReplStorageBeginTransaction(storage));
    Append(storage, "hello");
    Append(storage, "replicated world");
    Check(K9eReplStorageCommit(storage));
    Check(K9eReplStorageEnumRecords(storage, 1, INT64_MAX, Print, NULL));
    Check(K9eReplStorageClose(storage));
    return EXIT_SUCCESS;
}
