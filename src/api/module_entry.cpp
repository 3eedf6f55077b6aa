// What happens when the shared library is loaded and unloaded. Compiled into the shared library
// alone: programs that link its objects, as the tests do, are no copy of it.
#include "api/load_guard.h"
#include "api/module_registration.h"

namespace {

const k9erepl::LoadGuard loadGuard;
const k9erepl::ModuleRegistration moduleRegistration;

}  // namespace
