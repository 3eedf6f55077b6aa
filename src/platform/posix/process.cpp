// The process: forks, the message box, module handles.
#include "platform/process.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <cstdio>

namespace k9erepl::platform {
namespace {

// The address where the module that holds `address` was loaded; null if unknown.
void* ModuleOf(const void* address) {
    Dl_info info = {};
    return dladdr(address, &info) != 0 ? info.dli_fbase : nullptr;
}

}  // namespace

u32 OwnProcessId() {
    return static_cast<u32>(getpid());
}

constinit std::atomic<u32> detail::g_forkGeneration{0};

bool WatchForks() {
    static const bool watched =
        pthread_atfork(nullptr, nullptr, [] { detail::g_forkGeneration.fetch_add(1); }) == 0;
    return watched;
}

void ShowMessageBox(const char* text, const char* caption) {
    (void)std::fprintf(stderr, "%s: %s\n", caption, text);
}

void* OwnModuleHandle() {
    return ModuleOf(reinterpret_cast<const void*>(&ShowMessageBox));
}

void* ProcessModuleHandle() {
    // The kernel says where it put the program's headers, which lie in the program's module.
    return ModuleOf(reinterpret_cast<const void*>(getauxval(AT_PHDR)));
}

}  // namespace k9erepl::platform
