// Unhandled exceptions of the system, and abort, which the C library tells as a signal.
#include <csignal>

#include "platform/windows/win32.h"
#include "support/death_notice.h"

namespace k9erepl::test {
namespace {

// The program's image in memory: addresses are told as offsets in it, as its symbols need them.
struct Image {
    DWORD_PTR begin = reinterpret_cast<DWORD_PTR>(GetModuleHandleA(nullptr));
    DWORD_PTR size = SizeOf(begin);

    bool Contains(DWORD_PTR address) const { return address - begin < size; }

    static DWORD_PTR SizeOf(DWORD_PTR begin) {
        const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(begin);
        const auto headers = begin + static_cast<DWORD_PTR>(dos->e_lfanew);
        return reinterpret_cast<const IMAGE_NT_HEADERS*>(headers)->OptionalHeader.SizeOfImage;
    }
};

// Words of the stack that may be return addresses into the program, the innermost first. Frames
// need no walking for that, and a damaged stack does not stop it.
void TellStack(const CONTEXT& context, const Image& image) {
#ifdef _WIN64
    const DWORD_PTR top = context.Rsp;
#else
    const DWORD_PTR top = context.Esp;
#endif
    const auto end =
        reinterpret_cast<DWORD_PTR>(reinterpret_cast<const NT_TIB*>(NtCurrentTeb())->StackBase);
    constexpr int kAddressesMax = 40;
    int told = 0;
    Tell(", stack");
    for (DWORD_PTR word = top; word + sizeof word <= end && told < kAddressesMax;
         word += sizeof word) {
        const DWORD_PTR value = *reinterpret_cast<const DWORD_PTR*>(word);
        if (image.Contains(value)) {
            Tell(" ");
            TellHex(value - image.begin);
            ++told;
        }
    }
}

LONG WINAPI OnUnhandledException(EXCEPTION_POINTERS* pointers) {
    if (TellDeath()) {
        const EXCEPTION_RECORD& exception = *pointers->ExceptionRecord;
        const Image image;
        Tell("exception ");
        TellHex(exception.ExceptionCode);
        Tell(" in code at ");
        TellHex(reinterpret_cast<DWORD_PTR>(exception.ExceptionAddress));
        if (exception.NumberParameters >= 2) {
            Tell(", address ");
            TellHex(exception.ExceptionInformation[1]);
        }
        Tell(", program at ");
        TellHex(image.begin);
        TellStack(*pointers->ContextRecord, image);
        TellEnd();
    }
    return EXCEPTION_EXECUTE_HANDLER;  // ends with the exception's code, and asks nobody
}

void OnAbort(int) {
    if (TellDeath()) {
        Tell("aborted");
        TellEnd();
    }
}

}  // namespace

void WriteToStandardError(const char* text, std::size_t size) {
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_ERROR_HANDLE), text, static_cast<DWORD>(size), &written, nullptr);
}

void WatchForDeath() {
    SetUnhandledExceptionFilter(OnUnhandledException);
    (void)std::signal(SIGABRT, OnAbort);
}

}  // namespace k9erepl::test
