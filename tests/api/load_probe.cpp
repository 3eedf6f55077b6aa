// A process of its own for second_copy_test.cpp: `api_load_probe FIRST SECOND` loads, uses and
// unloads two copies of the library and prints after each step whether the process carries the
// library's mark.
#include <k9erepl/storage.h>

#include <cstdio>
#include <cstring>

#include "api/loading.h"
#include "platform/process.h"

namespace k9erepl::test {
namespace {

void Tell(const char* step) {
    const bool marked = platform::FindProcessAtom("K9eReplStorage") != 0;
    (void)std::printf("%s: %s\n", step, marked ? "marked" : "not marked");
    (void)std::fflush(stdout);
}

// The function of that name in `library`, as `declared` says.
template <typename Function>
Function* Get(void* library, const char* name, Function* /*declared*/) {
    return reinterpret_cast<Function*>(FunctionOf(library, name));
}
#define K9EREPL_GET(library, name) Get(library, #name, &(name))

std::uint32_t K9EREPL_CALL IsText(const K9eReplRec* rec, void* found) {
    *static_cast<bool*>(found) = rec->dataSize == 4 && std::memcmp(rec->data, "text", 4) == 0;
    return RC_OK;
}

// Puts a record into a storage in memory and reads it back, all with the functions of `library`.
bool Works(void* library) {
    const auto open = K9EREPL_GET(library, K9eReplStorageOpen);
    const auto load = K9EREPL_GET(library, K9eReplStorageLoad);
    const auto insert = K9EREPL_GET(library, K9eReplStorageInsert);
    const auto enumerate = K9EREPL_GET(library, K9eReplStorageEnumRecords);
    const auto close = K9EREPL_GET(library, K9eReplStorageClose);
    if (open == nullptr || load == nullptr || insert == nullptr || enumerate == nullptr ||
        close == nullptr) {
        return false;
    }
    unsigned char memory[sizeof(K9eReplRec) + 4] = {};
    auto* const record = reinterpret_cast<K9eReplRec*>(memory);
    record->dataSize = 4;
    std::memcpy(record->data, "text", 4);
    void* handle = nullptr;
    bool found = false;
    return open("cache_type=AllInMem;flush_mode=NoFlush;file=:memory:", &handle) == RC_OK &&
           load(handle) == RC_OK && insert(handle, record) == RC_OK &&
           enumerate(handle, 1, 1, &IsText, &found) == RC_OK && found && close(handle) == RC_OK;
}

int Run(const char* firstPath, const char* secondPath) {
    if (!RecordMessageBoxes()) {
        (void)std::printf("cannot record message boxes\n");
        return 1;
    }
    Tell("before");
    void* const first = LoadLibraryFrom(firstPath);
    Tell("first loaded");
    void* const second = LoadLibraryFrom(secondPath);
    Tell("second loaded");
    if (first == nullptr || second == nullptr) {
        return 1;
    }
    (void)std::printf("copies: %s\n", first == second ? "one" : "two");
    (void)std::printf("first: %s\n", Works(first) ? "works" : "fails");
    (void)std::printf("second: %s\n", Works(second) ? "works" : "fails");
    UnloadLibrary(second);
    Tell("second unloaded");
    UnloadLibrary(first);
    Tell("first unloaded");
    return 0;
}

}  // namespace
}  // namespace k9erepl::test

int main(int argc, char** argv) {
    return argc == 3 ? k9erepl::test::Run(argv[1], argv[2]) : 2;
}
