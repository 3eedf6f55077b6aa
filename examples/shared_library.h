/* Loading a library while the program runs, which each system does in its own way. For
 * load_at_run_time.c. */
#ifndef K9EREPL_EXAMPLES_SHARED_LIBRARY_H
#define K9EREPL_EXAMPLES_SHARED_LIBRARY_H

/* Any function; cast it to its own type before it is called. */
typedef void (*AnyFunction)(void);

/* Loads the library at `path`, and what it needs from the same folder; null when that fails. */
void* LoadSharedLibrary(const char* path);
/* The function that the library exports under `name`; null when it does not. */
AnyFunction FindFunction(void* library, const char* name);
void UnloadSharedLibrary(void* library);

#endif /* K9EREPL_EXAMPLES_SHARED_LIBRARY_H */
