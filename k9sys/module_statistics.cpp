// The statistics service, as far as the stand-in keeps it: which modules are registered.
#include <k9sys/k9sys.h>

#include <mutex>
#include <new>
#include <set>
#include <string>
#include <string_view>

#include "host.h"
#include "result_codes.h"
#include "text_output.h"

namespace {

// Safe for all threads.
class ModuleStatistics {
  public:
    // Throws std::bad_alloc.
    uint32_t Add() {
        const std::lock_guard lock(m_mutex);
        m_ids.insert(m_lastId + 1);
        return ++m_lastId;
    }

    void Remove(uint32_t id) {
        const std::lock_guard lock(m_mutex);
        m_ids.erase(id);
    }

    uint32_t Count() {
        const std::lock_guard lock(m_mutex);
        return static_cast<uint32_t>(m_ids.size());
    }

    // The one object of the process. Never destroyed: modules are unregistered while it ends.
    static ModuleStatistics& Instance() {
        alignas(ModuleStatistics) static unsigned char room[sizeof(ModuleStatistics)];
        static ModuleStatistics& statistics = *new (room) ModuleStatistics;
        return statistics;
    }

  private:
    std::mutex m_mutex;
    uint32_t m_lastId = 0;     // guarded by m_mutex
    std::set<uint32_t> m_ids;  // guarded by m_mutex
};

void CopyText(std::string_view text, char* buffer, uint32_t size) {
    k9sys::TextOutput out(buffer, buffer == nullptr ? 0 : size);
    out.Put(text);
    out.Terminate();
}

}  // namespace

uint32_t K9MQStatSetBinaryModuleVersion(void* module, const char* product, const char* version,
                                        uint32_t* registration, char* name, uint32_t nameSize,
                                        char* path, uint32_t pathSize) {
    if (product == nullptr || version == nullptr || registration == nullptr) {
        return k9sys::kInvalidArgument;
    }
    try {
        const std::string modulePath = k9sys::ModulePath(module);
        std::string_view fileName = modulePath;
        fileName.remove_prefix(modulePath.find_last_of("/\\") + 1);
        *registration = ModuleStatistics::Instance().Add();
        CopyText(modulePath, path, pathSize);
        CopyText(fileName, name, nameSize);
        return k9sys::kOk;
    } catch (const std::bad_alloc&) {
        return k9sys::kNoMemory;
    }
}

void K9MQStatUnregisterModule(uint32_t registration) {
    ModuleStatistics::Instance().Remove(registration);
}

uint32_t K9SysRegisteredModuleCount(void) {
    return ModuleStatistics::Instance().Count();
}
