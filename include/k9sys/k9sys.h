/* The services that the host's system library offers to the replication storage library: logging
 * with a switch for each call site, bounded formatting, parser memory and module statistics.
 *
 * The replication storage library imports the functions of the first section and nothing else. The
 * second section belongs to the stand-in library of this project (libK9Sys), which developers,
 * tests and Linux hosts use; a host's own system library need not offer it.
 *
 * Every function may be called from any thread at any time. Texts are NUL-terminated UTF-8. */
#ifndef K9SYS_K9SYS_H
#define K9SYS_K9SYS_H

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#define K9SYS_CALL __cdecl
#if defined(K9SYS_BUILDING)
#define K9SYS_API __declspec(dllexport)
#else
#define K9SYS_API __declspec(dllimport)
#endif
#else
#define K9SYS_CALL
#if defined(__GNUC__)
#define K9SYS_API __attribute__((visibility("default")))
#else
#define K9SYS_API
#endif
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------------------------------
 * 1. What a host's system library must offer
 *
 * Directives of a format, each with the argument that it takes:
 *
 *   %d      int32_t, signed decimal           %s   text; null prints "(null)"
 *   %u      uint32_t, decimal                 %f   double
 *   %x %X   uint32_t, hexadecimal             %p   pointer, "0x" and hexadecimal digits
 *   %I64d   int64_t; also %lld                %P   size_t, decimal
 *   %I64u   uint64_t; also %llu               %r   uint32_t error code of the operating system
 *   %I64x   uint64_t; also %I64X %llx %llX    %R   uint32_t result code
 *   %%      none: a percent sign
 *
 * Flags ("-", "+", " ", "#", "0"), a width, and "." with a precision may stand between '%' and the
 * rest, as for printf. Width and precision are digits, or "*", which takes an int32_t argument.
 * Text behind '%' that is not in this list is printed as it stands and takes no argument.
 *
 * The stand-in prints %r as a decimal number, and %R as a decimal number below 0x8000, as "0x" and
 * capital hexadecimal digits from there on: "25", "0x8011". A host's library may word both.
 * ------------------------------------------------------------------------------------------ */

/* Says whether a call site is enabled: non-zero means that its message is printed. It belongs to
 * the system library and is valid until the process ends. The storage library reads it at every
 * execution of the site, so the system library may change it at any time. */
typedef int K9LogFlag;

/* Each logs a message of `module` when its level is enabled. `code` is the result code that the
 * failed operation returns. Any module name may appear at any time. */
K9SYS_API void K9SYS_CALL K9LogInfoEx(const char* module, const char* format, ...);
K9SYS_API void K9SYS_CALL K9LogWarningEx(const char* module, const char* format, ...);
K9SYS_API void K9SYS_CALL K9LogErrorEx(const char* module, const char* format, ...);
K9SYS_API void K9SYS_CALL K9LogErrorWithCodeEx(uint32_t code, const char* module,
                                               const char* format, ...);

/* The registering variants: each logs like its plain twin when the site is enabled, and returns
 * the address of the site's flag, never null. The storage library calls it at the first execution
 * of each call site. Two threads may call it for one site at once; both must get the same address.
 * The stand-in has one flag for each module and level; errors with and without a code share one. */
K9SYS_API K9LogFlag* K9SYS_CALL trcheckEx_K9LogInfoEx_(const char* module, const char* format, ...);
K9SYS_API K9LogFlag* K9SYS_CALL trcheckEx_K9LogInfoEx_0(const char* module, const char* format,
                                                        ...);
K9SYS_API K9LogFlag* K9SYS_CALL trcheckEx_K9LogWarningEx_(const char* module, const char* format,
                                                          ...);
K9SYS_API K9LogFlag* K9SYS_CALL trcheckEx_K9LogErrorEx_(const char* module, const char* format,
                                                        ...);
K9SYS_API K9LogFlag* K9SYS_CALL trcheckEx_K9LogErrorWithCodeEx_(uint32_t code, const char* module,
                                                                const char* format, ...);

/* Formats into `buffer` of `size` bytes; the text is cut to fit and always terminated when `size`
 * is not 0. Returns the number of characters in the buffer, the terminating zero not counted. */
K9SYS_API uint32_t K9SYS_CALL K9SysSNPrintf(char* buffer, uint32_t size, const char* format, ...);

/* Memory for the small start records of threads, aligned for any type; null when there is none. Any
 * thread may free it. Freeing null does nothing. */
K9SYS_API void* K9SYS_CALL K9SysParserMemAlloc(size_t size);
K9SYS_API void K9SYS_CALL K9SysParserMemFree(void* memory);

/* Registers a loaded module and its version with the statistics service.
 * module        handle of the module (on POSIX: any address inside it); null is the program
 * product, version   texts of the build
 * registration  receives an id, any number, that unregisters the module
 * name, nameSize     buffer that receives the module's file name; 255 bytes are usual
 * path, pathSize     buffer that receives the module's path; 260 bytes are usual
 * Texts are cut to fit and terminated; a null buffer receives nothing. Returns 0; 1 for no memory;
 * 2 for a null text or a null `registration`. On failure the buffers and the id are unchanged, and
 * the module runs on without registration. */
K9SYS_API uint32_t K9SYS_CALL K9MQStatSetBinaryModuleVersion(void* module, const char* product,
                                                             const char* version,
                                                             uint32_t* registration, char* name,
                                                             uint32_t nameSize, char* path,
                                                             uint32_t pathSize);
/* Takes a registration back. An id that is not registered is ignored. The storage library calls it
 * once when it is unloaded; with 0 when it could not be registered. */
K9SYS_API void K9SYS_CALL K9MQStatUnregisterModule(uint32_t registration);

/* ---------------------------------------------------------------------------------------------
 * 2. What the stand-in adds: control of what is printed, and where
 * ------------------------------------------------------------------------------------------ */

/* Each level includes the ones before it. */
typedef enum K9SysLogLevel {
    K9SYS_LOG_OFF = 0,
    K9SYS_LOG_ERROR = 1,
    K9SYS_LOG_WARNING = 2,
    K9SYS_LOG_INFO = 3
} K9SysLogLevel;

/* Receives each message that is enabled. `code` is 0 unless the message carries a result code.
 * `text` is valid during the call only. Called on the logging thread, one call at a time. It must
 * not throw; what it logs itself is dropped. */
typedef void(K9SYS_CALL* K9SysLogSink)(K9SysLogLevel level, const char* module, const char* text,
                                       uint32_t code, void* context);

/* Sets the level of one module, or of every module when `module` is null (which also forgets all
 * levels set for single modules). Takes effect at once, at every call site. Returns 0, or 1 for no
 * memory, when nothing has changed. REQUIRES: one of the four levels. */
K9SYS_API uint32_t K9SYS_CALL K9SysSetLogLevel(const char* module, K9SysLogLevel level);

/* Replaces all levels by those of a list, in the form of the environment variable K9SYS_LOG:
 * "warning", or "k9eRepl-storage=info,***TP***=info", or both ("warning,***TP***=info"). Modules
 * that are not named get the default, which is "error" unless the list names another. Returns 0; 1
 * for no memory; 2 for null or a text that it does not understand. On failure nothing changes. */
K9SYS_API uint32_t K9SYS_CALL K9SysSetLogLevels(const char* levels);

/* Sends messages to `sink` instead of the log file; a null sink goes back to the file. When this
 * returns, the previous sink is no longer running. Must not be called from inside a sink. */
K9SYS_API void K9SYS_CALL K9SysSetLogSink(K9SysLogSink sink, void* context);

/* The parser memory in use, as the sum of the bytes asked for; and the most that may be in use, at
 * first SIZE_MAX. A lower limit lets allocations fail and takes nothing away. */
K9SYS_API size_t K9SYS_CALL K9SysParserMemInUse(void);
K9SYS_API void K9SYS_CALL K9SysSetParserMemLimit(size_t bytes);

/* The number of modules that are registered at present. */
K9SYS_API uint32_t K9SYS_CALL K9SysRegisteredModuleCount(void);

#ifdef __cplusplus
}
#endif

#endif /* K9SYS_K9SYS_H */
