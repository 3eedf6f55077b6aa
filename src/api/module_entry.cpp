// What happens when the shared library is loaded and unloaded. Compiled into the shared library
// only: a program that links the library's objects, as the tests do, is not a copy of it.
#include "api/load_guard.h"
#include "api/module_registration.h"

namespace {

const k9erepl::LoadGuard loadGuard;
const k9erepl::ModuleRegistration moduleRegistration;

}  // namespace
