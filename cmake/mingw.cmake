# Cross compilation for Windows with mingw-w64; included by windows-x86.cmake and windows-x64.cmake,
# which set K9EREPL_MINGW to the compiler's prefix. The "posix" compilers are those whose standard
# library has threads.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_C_COMPILER ${K9EREPL_MINGW}-gcc-posix)
set(CMAKE_CXX_COMPILER ${K9EREPL_MINGW}-g++-posix)
set(CMAKE_RC_COMPILER ${K9EREPL_MINGW}-windres)

# The compiler's runtime is linked in: nobody has to ship it beside the libraries.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")

set(CMAKE_FIND_ROOT_PATH /usr/${K9EREPL_MINGW})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Programs of the build, the tests among them, run under Wine.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/wine.sh)
