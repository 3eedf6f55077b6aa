// What the library knows of the process that loaded it: named marks shared by all copies of the
// library in the process, forks, the message box of the load guard, module handles.
#ifndef K9EREPL_PLATFORM_PROCESS_H
#define K9EREPL_PLATFORM_PROCESS_H

#include <atomic>

#include "platform/int_types.h"

namespace k9erepl::platform {

// A named mark in the process: Windows' local atom, and on POSIX a named memory mapping with the
// same life (kept until deleted, gone at exec, in no environment variable, not seen by other
// processes). 0 is no atom.
using ProcessAtom = std::uintptr_t;

// Finding returns 0 when there is none, adding when the system cannot make one. A name has at most
// 200 characters, none of them special.
ProcessAtom FindProcessAtom(const char* name);
ProcessAtom AddProcessAtom(const char* name);
// `atom` may be 0; it must come from AddProcessAtom or FindProcessAtom with that name.
void DeleteProcessAtom(ProcessAtom atom, const char* name);

// Other in a forked child than in its parent.
u32 OwnProcessId();

// How often the process was forked between its first ancestor that called WatchForks and this one.
// A fork copies the memory of a process and none of its threads but one: whoever owns a thread or
// shares a file remembers the generation in which that was made. Always 0 on Windows.
namespace detail {
extern std::atomic<u32> g_forkGeneration;
}
inline u32 ForkGeneration() {
    return detail::g_forkGeneration.load(std::memory_order_relaxed);
}
// From now on ForkGeneration follows forks; called any number of times. False when the system has
// no memory for that.
bool WatchForks();

// Tells the user: a modal box on Windows, one line "caption: text" on standard error on POSIX.
void ShowMessageBox(const char* text, const char* caption);

// The module that holds this code, and the process's program, each by the address where it was
// loaded: an HMODULE on Windows, and on POSIX an address that dladdr() knows. Null if unknown.
void* OwnModuleHandle();
void* ProcessModuleHandle();

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_PROCESS_H
