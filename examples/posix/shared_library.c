/* Loading a library, for load_at_run_time.c: the dynamic linker. */
#include "../shared_library.h"

#include <dlfcn.h>
#include <string.h>

void* LoadSharedLibrary(const char* path) {
    return dlopen(path, RTLD_NOW | RTLD_LOCAL);
}

AnyFunction FindFunction(void* library, const char* name) {
    /* C knows no cast from an address to a function; this system keeps both in the same size. */
    void* const address = dlsym(library, name);
    AnyFunction function = NULL;
    memcpy(&function, &address, sizeof function);
    return function;
}

void UnloadSharedLibrary(void* library) {
    dlclose(library);
}
