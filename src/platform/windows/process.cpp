// The process: atoms, the message box, module handles.
#include "platform/process.h"

#include "platform/windows/win32.h"

namespace k9erepl::platform {

ProcessAtom FindProcessAtom(const char* name) {
    return FindAtomA(name);
}

ProcessAtom AddProcessAtom(const char* name) {
    return AddAtomA(name);
}

void DeleteProcessAtom(ProcessAtom atom, const char* /*name*/) {
    if (atom != 0) {
        DeleteAtom(static_cast<ATOM>(atom));
    }
}

u32 OwnProcessId() {
    return GetCurrentProcessId();
}

// Windows has no forks: the number stays 0.
constinit std::atomic<u32> detail::g_forkGeneration{0};

bool WatchForks() {
    return true;
}

void ShowMessageBox(const char* text, const char* caption) {
    MessageBoxA(nullptr, text, caption, MB_OK | MB_TASKMODAL | MB_TOPMOST);
}

void* OwnModuleHandle() {
    HMODULE module = nullptr;
    const BOOL found = GetModuleHandleExA(
        GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
        reinterpret_cast<LPCSTR>(&ShowMessageBox), &module);
    return found != FALSE ? module : nullptr;
}

void* ProcessModuleHandle() {
    return GetModuleHandleA(nullptr);
}

}  // namespace k9erepl::platform
