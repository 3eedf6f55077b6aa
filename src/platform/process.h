// What the library knows of the process that loaded it: named marks shared by all copies of the
// library in the process, the message box of the load guard, module handles.
#ifndef K9EREPL_PLATFORM_PROCESS_H
#define K9EREPL_PLATFORM_PROCESS_H

#include "platform/int_types.h"

namespace k9erepl::platform {

// A named mark in the process: Windows' local atom, and on POSIX a named memory mapping with the
// same life (kept until deleted, gone at exec, in no environment variable, not seen by other
// processes). 0 is no atom.
using ProcessAtom = std::uintptr_t;

ProcessAtom FindProcessAtom(const char* name);
ProcessAtom AddProcessAtom(const char* name);
void DeleteProcessAtom(ProcessAtom atom, const char* name);

// Tells the user: a modal box on Windows, one line "caption: text" on standard error on POSIX.
void ShowMessageBox(const char* text, const char* caption);

// The handle of the module that holds this code, and of the process's program.
void* OwnModuleHandle();
void* ProcessModuleHandle();

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_PROCESS_H
