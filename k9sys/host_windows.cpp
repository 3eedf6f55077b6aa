// The stand-in's calls into Windows.
#include <windows.h>

#include "host.h"

namespace k9sys {

void LocalTime(std::time_t time, std::tm* local) {
    localtime_s(local, &time);
}

std::FILE* OpenForAppending(const char* path) {
    return std::fopen(path, "aN");
}

std::string ModulePath(void* module) {
    char path[MAX_PATH + 1];
    const DWORD length = GetModuleFileNameA(static_cast<HMODULE>(module), path, sizeof path);
    return std::string(path, length);
}

}  // namespace k9sys
