/* A client of the storage library that knows nothing of the system library: only_posix_test.cpp
 * runs it with own_host.c in the place of the stand-in. Ends with 0 when everything went as it
 * should. */
#include <stdio.h>

const char* UseEverything(void); /* of ../api/c99_client.c */

int main(void) {
    const char* const failed = UseEverything();
    return failed != NULL && puts(failed) != 0;
}
