// What the library asks about the process that loaded it: named marks that all copies of the
// library in the process share, forks, the message box of the load guard, module handles. None of
// this goes through the table of system calls.
#ifndef K9EREPL_PLATFORM_PROCESS_H
#define K9EREPL_PLATFORM_PROCESS_H

#include <atomic>

#include "platform/int_types.h"

namespace k9erepl::platform {

// A named mark in the process: Windows' local atom, and on POSIX a named memory mapping with the
// same life (kept until it is deleted, gone at exec, in no environment variable, not seen by other
// processes). 0 is no atom.
using ProcessAtom = std::uintptr_t;

// FindProcessAtom returns 0 when there is no atom of that name, AddProcessAtom when the system
// cannot make one. A name has at most 200 characters, none of them special.
ProcessAtom FindProcessAtom(const char* name);
ProcessAtom AddProcessAtom(const char* name);
// `atom` may be 0, which does nothing; otherwise it must come from AddProcessAtom or
// FindProcessAtom with that name.
void DeleteProcessAtom(ProcessAtom atom, const char* name);

// The system's number of this process. A forked child has another one than its parent.
u32 OwnProcessId();

// The number of forks between the first ancestor of this process that called WatchForks and this
// process. A fork copies the memory of a process, but only one of its threads: whoever owns a
// thread or shares a file remembers the generation in which that was made. Always 0 on Windows.
// Reading it costs one load, so every exported call can afford it.
namespace detail {
extern std::atomic<u32> g_forkGeneration;
}
inline u32 ForkGeneration() {
    return detail::g_forkGeneration.load(std::memory_order_relaxed);
}
// Makes ForkGeneration count forks from now on. May be called any number of times. Returns false
// when the system has no memory for that.
[[nodiscard]] bool WatchForks();

// Tells the user: a modal box on Windows, one line "caption: text" on standard error on POSIX.
void ShowMessageBox(const char* text, const char* caption);

// The module that holds this code, and the program of the process, each as the address where it was
// loaded: an HMODULE on Windows, and on POSIX an address that dladdr() knows. Null if unknown. No
// reference is counted.
void* OwnModuleHandle();
void* ProcessModuleHandle();

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_PROCESS_H
