// A process of its own for second_copy_test.cpp: `api_load_probe FIRST SECOND` loads and unloads
// two copies of the library and prints after each step whether the process carries its mark.
#include <dlfcn.h>

#include <cstdio>

#include "platform/process.h"

namespace {

void Tell(const char* step) {
    const bool marked = k9erepl::platform::FindProcessAtom("K9eReplStorage") != 0;
    (void)std::printf("%s: %s\n", step, marked ? "marked" : "not marked");
    (void)std::fflush(stdout);
}

void* LoadCopy(const char* path) {
    void* const library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        (void)std::printf("cannot load %s: %s\n", path, dlerror());
    } else if (dlsym(library, "K9eReplStorageOpen") == nullptr) {
        (void)std::printf("no functions in %s\n", path);
    }
    return library;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    Tell("before");
    void* const first = LoadCopy(argv[1]);
    Tell("first loaded");
    void* const second = LoadCopy(argv[2]);
    Tell("second loaded");
    if (first == nullptr || second == nullptr) {
        return 1;
    }
    (void)dlclose(second);
    Tell("second unloaded");
    (void)dlclose(first);
    Tell("first unloaded");
    return 0;
}
