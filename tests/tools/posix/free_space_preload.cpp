// Says how much room a file system has: loaded by LD_PRELOAD in front of the C library, it gives
// K9EREPL_TEST_FREE_BYTES as the free bytes of every one. Used by the tests of clear.
#include <dlfcn.h>
#include <sys/statvfs.h>

#include <cstdlib>

namespace {

template <typename Status>
int Answer(const char* name, const char* path, Status* status) {
    using Call = int (*)(const char*, Status*);
    const int result = reinterpret_cast<Call>(dlsym(RTLD_NEXT, name))(path, status);
    if (const char* const free = std::getenv("K9EREPL_TEST_FREE_BYTES")) {
        status->f_frsize = status->f_bsize = 1;
        status->f_bavail = static_cast<decltype(status->f_bavail)>(std::atoll(free));
    }
    return result;
}

}  // namespace

extern "C" [[gnu::visibility("default")]] int statvfs(const char* path, struct statvfs* status) {
    return Answer("statvfs", path, status);
}

extern "C" [[gnu::visibility("default")]] int statvfs64(const char* path,
                                                        struct statvfs64* status) {
    return Answer("statvfs64", path, status);
}
