// Loading libraries at run time, and the message box that a library may show meanwhile. For
// load_probe.cpp, which has a process of its own; posix/loading.cpp and windows/loading.cpp.
#ifndef K9EREPL_TESTS_API_LOADING_H
#define K9EREPL_TESTS_API_LOADING_H

namespace k9erepl::test {

// From here on a message box becomes one line "caption: text" on standard error, and nobody is
// asked. A box of another style than the load guard's adds its style to the line. False when that
// cannot be had. On POSIX, where the library writes that line itself, it does nothing.
bool RecordMessageBoxes();

void* LoadLibraryFrom(const char* path);  // null, and the reason on standard output, on failure
void* FunctionOf(void* library, const char* name);  // null when there is none
void UnloadLibrary(void* library);

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_API_LOADING_H
