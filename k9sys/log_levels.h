// The flags that call sites read: one for each module and level, at an address that never changes.
// Asked by every log call, changed by the control functions and, once, by the environment.
#ifndef K9SYS_LOG_LEVELS_H
#define K9SYS_LOG_LEVELS_H

#include <k9sys/k9sys.h>

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

#include "level_list.h"

namespace k9sys {

// Safe for all threads. The flags themselves are read without the lock, by the library's call
// sites too, so every access to them is atomic.
class LogLevels {
  public:
    // Starts with the levels of K9SYS_LOG; says so on standard error when it does not understand
    // them, and logs errors only.
    LogLevels();

    // The flag of `module` at `level` (not K9SYS_LOG_OFF). When there is no memory for a new
    // module, it shares the flags that follow the default level. Throws nothing.
    K9LogFlag* Flag(const char* module, K9SysLogLevel level);

    // Null is every module, and forgets what was set for single ones. Throws std::bad_alloc.
    void SetLevel(const char* module, K9SysLogLevel level);

    // Replaces all levels. Throws std::bad_alloc, with no level changed.
    void SetLevels(const LevelList& list);

    // The one object of the process. Never destroyed: others log while the process ends.
    static LogLevels& Instance();

  private:
    struct Module {
        K9LogFlag flags[K9SYS_LOG_INFO + 1] = {};  // by level; the first is not used
    };

    // REQUIRES: m_mutex held.
    Module& FindOrAdd(std::string_view name);
    // REQUIRES: m_mutex held.
    void SetAll(K9SysLogLevel level);

    std::mutex m_mutex;
    // The rest is guarded by m_mutex. A map, because its nodes never move.
    K9SysLogLevel m_defaultLevel = K9SYS_LOG_ERROR;
    std::map<std::string, Module, std::less<>> m_modules;
    Module m_others;
};

// Whether a site with this flag prints.
bool IsEnabled(K9LogFlag* flag);

}  // namespace k9sys

#endif  // K9SYS_LOG_LEVELS_H
