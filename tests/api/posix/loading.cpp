// Loads libraries with the dynamic linker; see the header.
#include "api/loading.h"

#include <dlfcn.h>

#include <cstdio>

namespace k9erepl::test {

bool RecordMessageBoxes() {
    return true;
}

void* LoadLibraryFrom(const char* path) {
    void* const library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        (void)std::printf("cannot load %s: %s\n", path, dlerror());
    }
    return library;
}

void* FunctionOf(void* library, const char* name) {
    return dlsym(library, name);
}

void UnloadLibrary(void* library) {
    (void)dlclose(library);
}

}  // namespace k9erepl::test
