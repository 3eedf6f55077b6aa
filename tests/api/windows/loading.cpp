// Loads DLLs; takes the place of the system's message box in this process. See the header.
#include "api/loading.h"

#include <cstdio>
#include <cstring>

#include "platform/windows/win32.h"

namespace k9erepl::test {
namespace {

constexpr UINT kLoadGuardStyle = 0x42000;  // one button, for the whole task, above all windows

int WINAPI Record(HWND owner, LPCSTR text, LPCSTR caption, UINT style) {
    (void)std::fprintf(stderr, "%s: %s", caption, text);
    if (owner != nullptr || style != kLoadGuardStyle) {
        (void)std::fprintf(stderr, " (style 0x%x, owner %p)", style, static_cast<void*>(owner));
    }
    (void)std::fprintf(stderr, "\n");
    (void)std::fflush(stderr);
    return IDOK;
}

// mov eax, target; jmp eax. With the prefix 0x48 these registers, and the target, have 64 bits.
struct Jump {
    explicit Jump(void* target) {
        constexpr unsigned char kLoad[] = {0x48, 0xB8};
        constexpr unsigned char kGo[] = {0xFF, 0xE0};
        std::memcpy(code, kLoad + 2 - kTargetAt, kTargetAt);
        std::memcpy(code + kTargetAt, &target, sizeof target);
        std::memcpy(code + kTargetAt + sizeof target, kGo, sizeof kGo);
    }

    static constexpr std::size_t kTargetAt = sizeof(void*) == 8 ? 2 : 1;
    unsigned char code[kTargetAt + sizeof(void*) + 2];
};

}  // namespace

bool RecordMessageBoxes() {
    const HMODULE user = LoadLibraryA("user32.dll");
    const FARPROC box = user == nullptr ? nullptr : GetProcAddress(user, "MessageBoxA");
    if (box == nullptr) {
        return false;
    }
    const Jump jump(reinterpret_cast<void*>(&Record));
    void* const entry = reinterpret_cast<void*>(box);
    DWORD before = 0;
    if (VirtualProtect(entry, sizeof jump.code, PAGE_EXECUTE_READWRITE, &before) == FALSE) {
        return false;
    }
    std::memcpy(entry, jump.code, sizeof jump.code);
    return VirtualProtect(entry, sizeof jump.code, before, &before) != FALSE &&
           FlushInstructionCache(GetCurrentProcess(), entry, sizeof jump.code) != FALSE;
}

void* LoadLibraryFrom(const char* path) {
    const HMODULE library = LoadLibraryA(path);
    if (library == nullptr) {
        (void)std::printf("cannot load %s: error %lu\n", path, GetLastError());
    }
    return library;
}

void* FunctionOf(void* library, const char* name) {
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name));
}

void UnloadLibrary(void* library) {
    FreeLibrary(static_cast<HMODULE>(library));
}

}  // namespace k9erepl::test
