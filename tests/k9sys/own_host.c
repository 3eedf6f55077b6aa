/* The least that a host's own system library can be: the functions that the storage library
 * imports, and nothing else. Every message goes to standard error behind "host"; directives are
 * not expanded. only_posix_test.cpp puts it in the place of the stand-in. C99, as a host may be. */
#include <k9sys/k9sys.h>
#include <stdio.h>
#include <stdlib.h>

static K9LogFlag g_enabled = 1;

static K9LogFlag* Print(const char* level, const char* module, const char* format) {
    (void)fprintf(stderr, "host %s %s: %s\n", level, module, format);
    return &g_enabled;
}

#define HOST_LOGS(name, registering, level)                               \
    void name(const char* module, const char* format, ...) {              \
        (void)Print(level, module, format);                               \
    }                                                                     \
    K9LogFlag* registering(const char* module, const char* format, ...) { \
        return Print(level, module, format);                              \
    }
HOST_LOGS(K9LogInfoEx, trcheckEx_K9LogInfoEx_, "info")
HOST_LOGS(K9LogWarningEx, trcheckEx_K9LogWarningEx_, "warning")
HOST_LOGS(K9LogErrorEx, trcheckEx_K9LogErrorEx_, "error")

K9LogFlag* trcheckEx_K9LogInfoEx_0(const char* module, const char* format, ...) {
    return Print("info", module, format);
}

void K9LogErrorWithCodeEx(uint32_t code, const char* module, const char* format, ...) {
    (void)code;
    (void)Print("error", module, format);
}

K9LogFlag* trcheckEx_K9LogErrorWithCodeEx_(uint32_t code, const char* module, const char* format,
                                           ...) {
    (void)code;
    return Print("error", module, format);
}

uint32_t K9SysSNPrintf(char* buffer, uint32_t size, const char* format, ...) {
    const int length = snprintf(buffer, size, "%s", format);
    return size == 0 ? 0 : (uint32_t)length < size ? (uint32_t)length : size - 1;
}

void* K9SysParserMemAlloc(size_t size) {
    return malloc(size);
}

void K9SysParserMemFree(void* memory) {
    free(memory);
}

uint32_t K9MQStatSetBinaryModuleVersion(void* module, const char* product, const char* version,
                                        uint32_t* registration, char* name, uint32_t nameSize,
                                        char* path, uint32_t pathSize) {
    (void)module;
    (void)product;
    (void)version;
    *registration = 0; /* as good an id as any other */
    (void)name;
    (void)nameSize;
    (void)path;
    (void)pathSize;
    return 0;
}

void K9MQStatUnregisterModule(uint32_t registration) {
    (void)fprintf(stderr, "host unregisters module %u\n", (unsigned)registration);
}
