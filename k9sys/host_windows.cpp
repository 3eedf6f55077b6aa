// The stand-in's calls into Windows.
#define WIN32_LEAN_AND_MEAN
#define NOMINMAX
#include <windows.h>

#include <cstdlib>

#include "host.h"

namespace k9sys {

void LocalTime(std::time_t time, std::tm* local) {
    localtime_s(local, &time);
}

std::FILE* OpenForAppending(const char* path) {
    return std::fopen(path, "aN");
}

const char* EnvironmentText(const char* name) {
    const DWORD size = GetEnvironmentVariableA(name, nullptr, 0);
    char* const text = size != 0 ? static_cast<char*>(std::malloc(size)) : nullptr;
    if (text == nullptr || GetEnvironmentVariableA(name, text, size) >= size) {
        std::free(text);
        return nullptr;
    }
    return text;  // never freed: it is asked for once or twice in the life of a process
}

std::string ModulePath(void* module) {
    char path[MAX_PATH + 1];
    const DWORD length = GetModuleFileNameA(static_cast<HMODULE>(module), path, sizeof path);
    return std::string(path, length);
}

}  // namespace k9sys
