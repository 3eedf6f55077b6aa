// A C++ client that is linked with both libraries: it lets only errors be logged and prints what
// the storage holds.
#include <k9erepl/storage.h>
#include <k9sys/k9sys.h>

#include <cstdio>

int main(int argc, char** argv) {
    K9SysSetLogLevels("error");
    void* storage = nullptr;
    if (argc != 2 || K9eReplStorageOpen(argv[1], &storage) != RC_OK ||
        K9eReplStorageLoad(storage) != RC_OK) {
        return 1;
    }
    const auto print = [](const K9eReplRec* rec, void*) -> uint32_t {
        std::printf("%.*s\n", static_cast<int>(rec->dataSize),
                    reinterpret_cast<const char*>(rec->data));
        return 0;
    };
    const bool read = K9eReplStorageEnumRecords(storage, 1, INT64_MAX, print, nullptr) == RC_OK;
    return read && K9eReplStorageClose(storage) == RC_OK ? 0 : 1;
}
