// The Win32 headers, without the rarely used ones and without the macros min and max, which would
// break std::min and std::max. For this folder, and for the windows folders of the tests.
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
