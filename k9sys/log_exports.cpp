// The exported log functions and the control of the log.
#include <k9sys/k9sys.h>

#include <cassert>
#include <cstdarg>
#include <new>

#include "level_list.h"
#include "log_levels.h"
#include "log_message.h"
#include "log_output.h"
#include "result_codes.h"

void K9LogInfoEx(const char* module, const char* format, ...) {
    va_list args;
    va_start(args, format);
    k9sys::Log(K9SYS_LOG_INFO, 0, module, format, args);
    va_end(args);
}

void K9LogWarningEx(const char* module, const char* format, ...) {
    va_list args;
    va_start(args, format);
    k9sys::Log(K9SYS_LOG_WARNING, 0, module, format, args);
    va_end(args);
}

void K9LogErrorEx(const char* module, const char* format, ...) {
    va_list args;
    va_start(args, format);
    k9sys::Log(K9SYS_LOG_ERROR, 0, module, format, args);
    va_end(args);
}

void K9LogErrorWithCodeEx(uint32_t code, const char* module, const char* format, ...) {
    va_list args;
    va_start(args, format);
    k9sys::Log(K9SYS_LOG_ERROR, code, module, format, args);
    va_end(args);
}

K9LogFlag* trcheckEx_K9LogInfoEx_(const char* module, const char* format, ...) {
    va_list args;
    va_start(args, format);
    K9LogFlag* const flag = k9sys::Log(K9SYS_LOG_INFO, 0, module, format, args);
    va_end(args);
    return flag;
}

K9LogFlag* trcheckEx_K9LogInfoEx_0(const char* module, const char* format, ...) {
    va_list args;
    va_start(args, format);
    K9LogFlag* const flag = k9sys::Log(K9SYS_LOG_INFO, 0, module, format, args);
    va_end(args);
    return flag;
}

K9LogFlag* trcheckEx_K9LogWarningEx_(const char* module, const char* format, ...) {
    va_list args;
    va_start(args, format);
    K9LogFlag* const flag = k9sys::Log(K9SYS_LOG_WARNING, 0, module, format, args);
    va_end(args);
    return flag;
}

K9LogFlag* trcheckEx_K9LogErrorEx_(const char* module, const char* format, ...) {
    va_list args;
    va_start(args, format);
    K9LogFlag* const flag = k9sys::Log(K9SYS_LOG_ERROR, 0, module, format, args);
    va_end(args);
    return flag;
}

K9LogFlag* trcheckEx_K9LogErrorWithCodeEx_(uint32_t code, const char* module, const char* format,
                                           ...) {
    va_list args;
    va_start(args, format);
    K9LogFlag* const flag = k9sys::Log(K9SYS_LOG_ERROR, code, module, format, args);
    va_end(args);
    return flag;
}

uint32_t K9SysSetLogLevel(const char* module, K9SysLogLevel level) {
    assert(level >= K9SYS_LOG_OFF && level <= K9SYS_LOG_INFO);
    try {
        k9sys::LogLevels::Instance().SetLevel(module, level);
        return k9sys::kOk;
    } catch (const std::bad_alloc&) {
        return k9sys::kNoMemory;
    }
}

uint32_t K9SysSetLogLevels(const char* levels) {
    try {
        k9sys::LevelList list;
        if (levels == nullptr || !k9sys::ParseLevelList(levels, &list)) {
            return k9sys::kInvalidArgument;
        }
        k9sys::LogLevels::Instance().SetLevels(list);
        return k9sys::kOk;
    } catch (const std::bad_alloc&) {
        return k9sys::kNoMemory;
    }
}

void K9SysSetLogSink(K9SysLogSink sink, void* context) {
    k9sys::LogOutput::Instance().SetSink(sink, context);
}
