// Levels of modules and the flags that follow from them.
#include "log_levels.h"

#include <atomic>
#include <cassert>
#include <new>

#include "host.h"
#include "log_output.h"

namespace k9sys {

namespace {

void SetFlags(K9LogFlag* flags, K9SysLogLevel level) {
    for (int each = K9SYS_LOG_ERROR; each <= K9SYS_LOG_INFO; ++each) {
        std::atomic_ref<K9LogFlag>(flags[each])
            .store(each <= level ? 1 : 0, std::memory_order_relaxed);
    }
}

}  // namespace

LogLevels::LogLevels() {
    SetAll(K9SYS_LOG_ERROR);
    const char* const text = EnvironmentText("K9SYS_LOG");
    if (text == nullptr) {
        return;
    }
    LevelList list;
    try {
        if (ParseLevelList(text, &list)) {
            SetLevels(list);
            return;
        }
    } catch (const std::bad_alloc&) {
    }
    WriteComplaint("K9SYS_LOG is not understood, only errors are logged", text);
}

K9LogFlag* LogLevels::Flag(const char* module, K9SysLogLevel level) {
    assert(level > K9SYS_LOG_OFF && level <= K9SYS_LOG_INFO);
    const std::lock_guard lock(m_mutex);
    try {
        return &FindOrAdd(module == nullptr ? "" : module).flags[level];
    } catch (const std::bad_alloc&) {
        return &m_others.flags[level];
    }
}

LogLevels::Module& LogLevels::FindOrAdd(std::string_view name) {
    const auto found = m_modules.find(name);
    if (found != m_modules.end()) {
        return found->second;
    }
    Module& module = m_modules.try_emplace(std::string(name)).first->second;
    SetFlags(module.flags, m_defaultLevel);
    return module;
}

void LogLevels::SetLevel(const char* module, K9SysLogLevel level) {
    const std::lock_guard lock(m_mutex);
    if (module == nullptr) {
        SetAll(level);
    } else {
        SetFlags(FindOrAdd(module).flags, level);
    }
}

void LogLevels::SetLevels(const LevelList& list) {
    const std::lock_guard lock(m_mutex);
    for (const auto& [name, level] : list.modules) {
        FindOrAdd(name);
    }
    m_defaultLevel = list.defaultLevel;
    SetFlags(m_others.flags, list.defaultLevel);
    // Each flag goes straight to its new value: a site that stays enabled misses no message.
    for (auto& [name, module] : m_modules) {
        SetFlags(module.flags, list.LevelOf(name));
    }
}

void LogLevels::SetAll(K9SysLogLevel level) {
    m_defaultLevel = level;
    SetFlags(m_others.flags, level);
    for (auto& [name, module] : m_modules) {
        SetFlags(module.flags, level);
    }
}

LogLevels& LogLevels::Instance() {
    alignas(LogLevels) static unsigned char room[sizeof(LogLevels)];
    static LogLevels& levels = *new (room) LogLevels;
    return levels;
}

bool IsEnabled(K9LogFlag* flag) {
    return std::atomic_ref<K9LogFlag>(*flag).load(std::memory_order_relaxed) != 0;
}

}  // namespace k9sys
