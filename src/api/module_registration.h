// Registers the library and its version with the host's statistics service while it is loaded.
// module_entry.cpp holds one. docs/host-services.md describes the service.
#ifndef K9EREPL_API_MODULE_REGISTRATION_H
#define K9EREPL_API_MODULE_REGISTRATION_H

#include "platform/int_types.h"

namespace k9erepl {

// Both functions run inside the loader: the service must not load or unload libraries in them.
class ModuleRegistration {
  public:
    // Registers. A failure is ignored: the library works without it.
    ModuleRegistration();
    // Unregisters with the id as it is, also after a failure. Any number may be an id, so none says
    // "not registered"; a service ignores an id that it does not know.
    ~ModuleRegistration();
    ModuleRegistration(const ModuleRegistration&) = delete;
    ModuleRegistration& operator=(const ModuleRegistration&) = delete;

  private:
    u32 m_registration = 0;  // the service's id; stays 0 when the registration fails
    // The file name and the path of this library, as the service writes them; empty after a
    // failure. We do not read them, but the service's function takes buffers of these usual sizes,
    // in bytes.
    char m_name[255] = {};
    char m_path[260] = {};
};

}  // namespace k9erepl

#endif  // K9EREPL_API_MODULE_REGISTRATION_H
