// Process atoms: named memory mappings without content. Like Windows' local atoms, they are seen by
// every copy of the library in the process and by nobody else, exist until they are deleted, and
// are gone at exec. They keep no descriptor and change no environment variable. The atom is the
// address of the mapping.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "platform/process.h"

namespace k9erepl::platform {
namespace {

struct FileCloser {
    void operator()(std::FILE* file) const { (void)std::fclose(file); }
};
using OpenedFile = std::unique_ptr<std::FILE, FileCloser>;

std::size_t PageSize() {
    return static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

// Reads one line of any length, without its line end. Returns false at the end of the file.
bool ReadLine(std::FILE* file, std::string* line) {
    line->clear();
    for (int c = std::fgetc(file); c != EOF; c = std::fgetc(file)) {
        if (c == '\n') {
            return true;
        }
        line->push_back(static_cast<char>(c));
    }
    return !line->empty();
}

// The name in a line "begin-end permissions offset device inode   name"; empty if it has none.
std::string MappedName(const std::string& line) {
    constexpr int kFieldsBeforeName = 5;
    std::size_t at = 0;
    for (int field = 0; field < kFieldsBeforeName && at != std::string::npos; ++field) {
        at = line.find(' ', line.find_first_not_of(' ', at));
    }
    at = at == std::string::npos ? at : line.find_first_not_of(' ', at);
    return at == std::string::npos ? std::string() : line.substr(at);
}

// Returns a descriptor of new named memory; -1 when the system gives none. Kernels that know the
// second flag may insist on it, older ones refuse it.
int CreateNamedMemory(const char* name) {
    constexpr unsigned kNoExecSeal = 0x0008U;
    const int descriptor = memfd_create(name, MFD_CLOEXEC | kNoExecSeal);
    return descriptor >= 0 ? descriptor : memfd_create(name, MFD_CLOEXEC);
}

}  // namespace

ProcessAtom FindProcessAtom(const char* name) {
    const OpenedFile maps(std::fopen("/proc/self/maps", "re"));
    if (maps == nullptr) {
        return 0;
    }
    const std::string wanted = "/memfd:" + std::string(name) + " (deleted)";
    std::string line;
    while (ReadLine(maps.get(), &line)) {
        if (MappedName(line) == wanted) {
            return static_cast<ProcessAtom>(std::strtoull(line.c_str(), nullptr, 16));
        }
    }
    return 0;
}

ProcessAtom AddProcessAtom(const char* name) {
    const int descriptor = CreateNamedMemory(name);
    if (descriptor < 0) {
        return 0;
    }
    void* mapping = mmap(nullptr, PageSize(), PROT_NONE, MAP_SHARED, descriptor, 0);
    close(descriptor);
    return mapping == MAP_FAILED ? 0 : reinterpret_cast<ProcessAtom>(mapping);
}

void DeleteProcessAtom(ProcessAtom atom, const char* /*name*/) {
    if (atom != 0) {
        munmap(reinterpret_cast<void*>(atom), PageSize());
    }
}

}  // namespace k9erepl::platform
