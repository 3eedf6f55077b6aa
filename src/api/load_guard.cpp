// The mark of the first copy; see the header.
#include "api/load_guard.h"

namespace k9erepl {

namespace {
constexpr const char* kModuleName = "K9eReplStorage";
}

LoadGuard::LoadGuard() {
    if (platform::FindProcessAtom(kModuleName) != 0) {
        platform::ShowMessageBox("Module has already been loaded", kModuleName);
        return;
    }
    m_atom = platform::AddProcessAtom(kModuleName);
}

LoadGuard::~LoadGuard() {
    if (m_atom != 0) {
        platform::DeleteProcessAtom(m_atom, kModuleName);
    }
}

}  // namespace k9erepl
