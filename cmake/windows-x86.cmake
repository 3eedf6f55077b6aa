# Toolchain: 32-bit Windows, the library's first address.
set(CMAKE_SYSTEM_PROCESSOR x86)
set(K9EREPL_MINGW i686-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw.cmake)
