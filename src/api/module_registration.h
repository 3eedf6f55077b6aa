// Registers the library with the host's statistics service while it is loaded.
#ifndef K9EREPL_API_MODULE_REGISTRATION_H
#define K9EREPL_API_MODULE_REGISTRATION_H

#include "platform/int_types.h"

namespace k9erepl {

class ModuleRegistration {
  public:
    // A failed registration is no reason not to load.
    ModuleRegistration();
    // Unregisters with the id as it is: any number may be an id, and a service ignores one that it
    // does not know.
    ~ModuleRegistration();
    ModuleRegistration(const ModuleRegistration&) = delete;
    ModuleRegistration& operator=(const ModuleRegistration&) = delete;

  private:
    u32 m_registration = 0;  // the service's id; stays 0 when the registration fails
    char m_name[255] = {};
    char m_path[260] = {};
};

}  // namespace k9erepl

#endif  // K9EREPL_API_MODULE_REGISTRATION_H
