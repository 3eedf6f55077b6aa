// The stand-in's calls into a POSIX system.
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

#include "host.h"

namespace k9sys {

void LocalTime(std::time_t time, std::tm* local) {
    localtime_r(&time, local);
}

std::FILE* OpenForAppending(const char* path) {
    constexpr mode_t kReadWriteForAll = 0666;  // less the umask
    const int descriptor =
        open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, kReadWriteForAll);
    if (descriptor < 0) {
        return nullptr;
    }
    std::FILE* const file = fdopen(descriptor, "a");
    if (file == nullptr) {
        close(descriptor);
    }
    return file;
}

namespace {

std::string ProgramPath() {
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    return length < 0 ? std::string() : std::string(path, static_cast<std::size_t>(length));
}

}  // namespace

const char* EnvironmentText(const char* name) {
    return std::getenv(name);  // NOLINT(concurrency-mt-unsafe): read only
}

std::string ModulePath(void* module) {
    Dl_info info = {};
    if (module == nullptr || dladdr(module, &info) == 0) {
        return ProgramPath();
    }
    // Libraries have a path. The program has the word by which it was started, which may be a name
    // that was found through PATH.
    const std::string path = info.dli_fname;
    return path.find('/') == std::string::npos ? ProgramPath() : path;
}

}  // namespace k9sys
