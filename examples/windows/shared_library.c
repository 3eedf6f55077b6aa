/* Loading a library, for load_at_run_time.c: the Windows loader. */
#include "../shared_library.h"

#include <windows.h>

/* The flag lets K9Sys.dll be found beside the library; it wants a full path. */
void* LoadSharedLibrary(const char* path) {
    char fullPath[MAX_PATH];
    const DWORD length = GetFullPathNameA(path, MAX_PATH, fullPath, NULL);
    return length == 0 || length >= MAX_PATH
               ? NULL
               : (void*)LoadLibraryExA(fullPath, NULL, LOAD_WITH_ALTERED_SEARCH_PATH);
}

AnyFunction FindFunction(void* library, const char* name) {
    return (AnyFunction)GetProcAddress((HMODULE)library, name);
}

void UnloadSharedLibrary(void* library) {
    FreeLibrary((HMODULE)library);
}
