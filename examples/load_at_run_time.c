/* Loads the library while the program runs, without linking against it, and counts the records of
 * a storage after appending one:
 *
 *   load_at_run_time PATH-OF-THE-LIBRARY [CONNECTION-STRING]
 *
 * Every exported function is found by its plain name; its type is that of its declaration in
 * storage.h, with the calling convention K9EREPL_CALL. */
#include <k9erepl/storage.h>
#include <stdio.h>
#include <stdlib.h>

#include "shared_library.h"

static void* g_library;

/* Ends the program when there is no such function. */
static AnyFunction Find(const char* name) {
    const AnyFunction function = FindFunction(g_library, name);
    if (function == NULL) {
        fprintf(stderr, "the library has no %s\n", name);
        exit(EXIT_FAILURE);
    }
    return function;
}

static void Check(uint32_t code, const char* action) {
    if (code != RC_OK) {
        fprintf(stderr, "cannot %s: code %u\n", action, (unsigned)code);
        exit(EXIT_FAILURE);
    }
}

typedef uint32_t(K9EREPL_CALL* CreateFunction)(const char* connStr, uint32_t flags);
typedef uint32_t(K9EREPL_CALL* OpenFunction)(const char* connStr, void** outHandle);
typedef uint32_t(K9EREPL_CALL* HandleFunction)(void* handle); /* Load, Commit, Close ... */
typedef uint32_t(K9EREPL_CALL* InsertFunction)(void* handle, K9eReplRec* rec);
typedef uint32_t(K9EREPL_CALL* EnumFunction)(void* handle, int64_t fromRev, int64_t toRev,
                                             K9eReplEnumCb cb, void* cbContext);

static uint32_t K9EREPL_CALL Count(const K9eReplRec* rec, void* context) {
    (void)rec;
    ++*(unsigned long*)context;
    return 0;
}

/* Outside a transaction, an insertion is a transaction of its own. */
static unsigned long AppendAndCount(const char* settings) {
    K9eReplRec rec = {0}; /* without data */
    unsigned long count = 0;
    void* storage = NULL;
    Check(((CreateFunction)Find("K9eReplStorageCreate"))(settings, 0x2), "create the storage");
    Check(((OpenFunction)Find("K9eReplStorageOpen"))(settings, &storage), "open the storage");
    Check(((HandleFunction)Find("K9eReplStorageLoad"))(storage), "load the storage");
    Check(((InsertFunction)Find("K9eReplStorageInsert"))(storage, &rec), "append");
    Check(((EnumFunction)Find("K9eReplStorageEnumRecords"))(storage, 1, INT64_MAX, Count, &count),
          "enumerate");
    Check(((HandleFunction)Find("K9eReplStorageClose"))(storage), "close the storage");
    return count;
}

int main(int argc, char** argv) {
    g_library = argc > 1 ? LoadSharedLibrary(argv[1]) : NULL;
    if (g_library == NULL) {
        fprintf(stderr, "no library: load_at_run_time PATH-OF-THE-LIBRARY [CONNECTION-STRING]\n");
        return EXIT_FAILURE;
    }
    printf("records: %lu\n", AppendAndCount(argc > 2 ? argv[2] : "file=first.edb"));
    UnloadSharedLibrary(g_library);
    return EXIT_SUCCESS;
}
