// A module that is registered with the statistics service as long as the object lives. Used by the
// tests of that service.
#ifndef K9EREPL_TESTS_K9SYS_REGISTRATION_H
#define K9EREPL_TESTS_K9SYS_REGISTRATION_H

#include <k9sys/k9sys.h>

#include <cstdint>

namespace k9erepl::test {

// Registers this test program, or what `module` stands for.
struct Registration {
    explicit Registration(void* module = nullptr)
        : result(K9MQStatSetBinaryModuleVersion(module, "product", "1.2", &id, name, sizeof name,
                                                path, sizeof path)) {}
    ~Registration() { K9MQStatUnregisterModule(id); }
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

    std::uint32_t id = 0;
    char name[255] = "";
    char path[260] = "";
    std::uint32_t result;
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_K9SYS_REGISTRATION_H
