// The Win32 headers, without what nobody here needs. For this folder, and for such folders of
// tests.
#ifndef K9EREPL_PLATFORM_WINDOWS_WIN32_H
#define K9EREPL_PLATFORM_WINDOWS_WIN32_H

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#endif  // K9EREPL_PLATFORM_WINDOWS_WIN32_H
