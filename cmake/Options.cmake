# Compiler settings shared by every target: the language level, the warnings, the sanitizers.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 99)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

option(K9EREPL_WARNINGS_AS_ERRORS "Stop the build at a warning" OFF)
set(K9EREPL_SANITIZE "" CACHE STRING "Sanitizers, as -fsanitize takes them")
option(K9EREPL_COVERAGE "Instrument for gcov" OFF)

# On 32-bit POSIX systems the C library's file offsets have 64 bits only when asked to.
if(CMAKE_SIZEOF_VOID_P EQUAL 4 AND NOT WIN32)
    add_compile_definitions(_FILE_OFFSET_BITS=64)
endif()

find_package(Threads REQUIRED)
include(GNUInstallDirs)

# The libraries' binary interface: the number in libK9eReplStorage.so.1. It rises when a program
# that was linked with an older one would not run any more.
set(K9EREPL_ABI_VERSION 1)

# k9erepl_describe_library(<target> <name>): what both shared libraries have in common. Other
# projects link <target> as k9erepl::<name>, taken in or installed. Wherever the installed folder is
# moved to, a library finds the other one beside it.
function(k9erepl_describe_library target name)
    add_library(k9erepl::${name} ALIAS ${target})
    set_target_properties(${target} PROPERTIES
        EXPORT_NAME ${name}
        VERSION ${K9EREPL_ABI_VERSION}
        SOVERSION ${K9EREPL_ABI_VERSION})
    if(NOT WIN32)
        set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN")
    endif()
endfunction()

# Warnings, sanitizers and coverage; every target of ours links it privately.
add_library(k9erepl_options INTERFACE)
if(MSVC)
    # The log statements (__VA_OPT__) want the conforming preprocessor. C4324 only says that a type
    # was padded to the alignment that it asks for.
    target_compile_options(k9erepl_options INTERFACE
        /W4 /utf-8 /permissive- /Zc:preprocessor /Zc:__cplusplus /wd4324)
    # The C library's own functions: what replaces them exists on one system only.
    target_compile_definitions(k9erepl_options INTERFACE
        _CRT_SECURE_NO_WARNINGS _CRT_NONSTDC_NO_WARNINGS)
else()
    target_compile_options(k9erepl_options INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow)
    if(K9EREPL_WARNINGS_AS_ERRORS)
        target_compile_options(k9erepl_options INTERFACE -Werror)
    endif()
endif()
if(K9EREPL_SANITIZE)
    target_compile_options(k9erepl_options INTERFACE
        -fsanitize=${K9EREPL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(k9erepl_options INTERFACE -fsanitize=${K9EREPL_SANITIZE})
endif()
if(K9EREPL_COVERAGE)
    target_compile_options(k9erepl_options INTERFACE --coverage -fprofile-update=atomic)
    target_link_options(k9erepl_options INTERFACE --coverage)
endif()
target_link_libraries(k9erepl_options INTERFACE Threads::Threads)

# For directories whose code is run rarely and compiled often: tests always, the tool under a
# sanitizer. Optimising them takes several times as long as compiling them.
macro(k9erepl_compile_quickly)
    if(NOT MSVC)
        add_compile_options(-O0 -g1)
    endif()
endmacro()

# k9erepl_join_files(<target>): most of the compile time of a test goes into GoogleTest's headers,
# and of the tool into CLI11's and fmt's. Joined, eight files pay for them once; what they name for
# themselves must then differ among the files of a folder.
option(K9EREPL_JOIN_FILES "Compile the files of the tool and the tests eight at a time" OFF)
function(k9erepl_join_files target)
    if(NOT K9EREPL_JOIN_FILES)
        return()
    endif()
    set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 8)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        # A joined file is an included one, where GCC takes types of unnamed namespaces for shared.
        target_compile_options(${target} PRIVATE
            $<$<COMPILE_LANGUAGE:CXX>:-Wno-subobject-linkage>)
    endif()
endfunction()
