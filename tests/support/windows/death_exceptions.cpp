// Unhandled exceptions of the system, and abort, which the C library tells as a signal.
#include <csignal>

#include "platform/windows/win32.h"
#include "support/death_notice.h"

namespace k9erepl::test {
namespace {

void Write(DeathNotice& notice) {
    notice.Add("\n");
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_ERROR_HANDLE), notice.Text(), static_cast<DWORD>(notice.Size()),
              &written, nullptr);
}

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
void AddStack(DeathNotice& notice, const CONTEXT& context, const Image& image) {
#ifdef _WIN64
    const DWORD_PTR top = context.Rsp;
#else
    const DWORD_PTR top = context.Esp;
#endif
    const auto end =
        reinterpret_cast<DWORD_PTR>(reinterpret_cast<const NT_TIB*>(NtCurrentTeb())->StackBase);
    constexpr int kAddressesMax = 40;
    int told = 0;
    notice.Add(", stack");
    for (DWORD_PTR word = top; word + sizeof word <= end && told < kAddressesMax;
         word += sizeof word) {
        const DWORD_PTR value = *reinterpret_cast<const DWORD_PTR*>(word);
        if (image.Contains(value)) {
            notice.Add(" ");
            notice.AddHex(value - image.begin);
            ++told;
        }
    }
}

LONG WINAPI OnUnhandledException(EXCEPTION_POINTERS* pointers) {
    if (DeathNotice::IsFirst()) {
        const EXCEPTION_RECORD& exception = *pointers->ExceptionRecord;
        const Image image;
        DeathNotice notice;
        notice.Add("exception ");
        notice.AddHex(exception.ExceptionCode);
        notice.Add(" in code at ");
        notice.AddHex(reinterpret_cast<DWORD_PTR>(exception.ExceptionAddress));
        if (exception.NumberParameters >= 2) {
            notice.Add(", address ");
            notice.AddHex(exception.ExceptionInformation[1]);
        }
        notice.Add(", program at ");
        notice.AddHex(image.begin);
        AddStack(notice, *pointers->ContextRecord, image);
        Write(notice);
    }
    return EXCEPTION_EXECUTE_HANDLER;  // ends with the exception's code, and asks nobody
}

void OnAbort(int) {
    if (DeathNotice::IsFirst()) {
        DeathNotice notice;
        notice.Add("aborted");
        Write(notice);
    }
}

}  // namespace

void WatchForDeath() {
    SetUnhandledExceptionFilter(OnUnhandledException);
    (void)std::signal(SIGABRT, OnAbort);
}

}  // namespace k9erepl::test
