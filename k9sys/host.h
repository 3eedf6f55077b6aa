// The operating system as the stand-in needs it. One implementation for each system, chosen by the
// build: host_posix.cpp, host_windows.cpp.
#ifndef K9SYS_HOST_H
#define K9SYS_HOST_H

#include <cstdio>
#include <ctime>
#include <string>

namespace k9sys {

// *local becomes `time` in the time zone of the process.
void LocalTime(std::time_t time, std::tm* local);

// Opens a text file for appending, not inherited by child processes; null when that fails.
std::FILE* OpenForAppending(const char* path);

// The text of an environment variable, valid until the process ends; null when it is not set. It is
// the process's own, not what a C library has copied of it: the host may use another one.
const char* EnvironmentText(const char* name);

// The path of the loaded module that `module` stands for, or of the process's program when it is
// null or no module is found there. On POSIX a module is named by any address inside it. Empty
// when the system does not tell. Throws std::bad_alloc.
std::string ModulePath(void* module);

}  // namespace k9sys

#endif  // K9SYS_HOST_H
