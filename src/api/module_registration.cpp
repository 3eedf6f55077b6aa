// The registration; see the header.
#include "api/module_registration.h"

#include <k9sys/k9sys.h>

#include "platform/process.h"

namespace k9erepl {

ModuleRegistration::ModuleRegistration() {
    void* module = platform::OwnModuleHandle();
    if (module == nullptr) {
        module = platform::ProcessModuleHandle();
    }
    (void)K9MQStatSetBinaryModuleVersion(module, "K9eReplStorage", K9EREPL_VERSION, &m_registration,
                                         m_name, sizeof(m_name), m_path, sizeof(m_path));
}

ModuleRegistration::~ModuleRegistration() {
    K9MQStatUnregisterModule(m_registration);
}

}  // namespace k9erepl
