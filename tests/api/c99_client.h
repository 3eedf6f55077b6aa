/* What client_test.cpp runs of the C99 client. */
#ifndef K9EREPL_TESTS_API_C99_CLIENT_H
#define K9EREPL_TESTS_API_C99_CLIENT_H

#ifdef __cplusplus
extern "C" {
#endif

/* Null when everything went as it should, else the name of what did not. */
const char* UseEverything(void);

#ifdef __cplusplus
}
#endif

#endif /* K9EREPL_TESTS_API_C99_CLIENT_H */
