/* The result codes of <k9erepl/storage.h> with their names and texts, for messages that people
 * read. Header only: nothing is exported. Compiles as C99 and as C++. */
#ifndef K9EREPL_CODES_H
#define K9EREPL_CODES_H

#include <k9erepl/storage.h>

/* Every code once, as X(name, text). docs/result-codes.md shows the same list; a test compares both
 * with the codes of storage.h. */
#define K9EREPL_CODES(X)                                                           \
    X(RC_OK, "success")                                                            \
    X(RC_NO_MEMORY, "an allocation failed")                                        \
    X(RC_INVALID_ARG, "an argument or a setting is refused")                       \
    X(RC_BAD_DATA, "bad data in memory or in the file")                            \
    X(RC_SYSTEM_ERROR, "a system call on a file, event or thread failed")          \
    X(RC_NO_WRITER, "no storage file is open, or it has no writer")                \
    X(RC_PATH_TOO_LONG, "the path of the storage file has 260 characters or more") \
    X(RC_ENUM_STOP, "an enumeration was stopped by its visitor")                   \
    X(RC_NOT_SUPPORTED, "the operation is not provided")                           \
    X(RC_ALREADY, "already open, or already loaded")                               \
    X(RC_NOT_FOUND, "the expected item is not where it should be")                 \
    X(RC_SHORT_READ, "a read returned fewer bytes than asked")                     \
    X(RC_BAD_SIZE, "a negative size, or a refused setting of the writer")          \
    X(RC_FILE_NOT_OPEN, "the storage has no open file")                            \
    X(RC_TIMEOUT, "a wait for the writer or a thread ran out")                     \
    X(RC_WRONG_STATE, "not allowed in the storage's present state")                \
    X(RC_NO_TRANSACTION, "commit without a transaction")                           \
    X(RC_TRANS_ROLLED_BACK, "commit of a nested level after a rollback")           \
    X(RC_NO_TRANSACTION_TO_ROLLBACK, "rollback without a transaction")             \
    X(RC_BEGIN_AFTER_ROLLBACK, "a nested transaction was begun after a rollback")  \
    X(RC_FILE_CORRUPT, "the file's structure cannot be loaded")                    \
    X(RC_IN_TRANSACTION, "not allowed inside a transaction")                       \
    X(RC_NOT_OPEN, "a query while the storage is not loaded")

/* The name of a code, such as "RC_NO_MEMORY"; "unknown code" for a number that is none. Static
 * text; needs no library and no lock. */
static inline const char* K9eReplStorageCodeName(uint32_t code) {
    switch (code) {
#define K9EREPL_CODE_NAME(name, text) \
    case name:                        \
        return #name;
        K9EREPL_CODES(K9EREPL_CODE_NAME)
#undef K9EREPL_CODE_NAME
        default:
            return "unknown code";
    }
}

/* What a code means, in a few words, such as "an allocation failed"; "unknown code" for a number
 * that is none. Static text; needs no library and no lock. */
static inline const char* K9eReplStorageCodeText(uint32_t code) {
    switch (code) {
#define K9EREPL_CODE_TEXT(name, text) \
    case name:                        \
        return text;
        K9EREPL_CODES(K9EREPL_CODE_TEXT)
#undef K9EREPL_CODE_TEXT
        default:
            return "unknown code";
    }
}

#endif /* K9EREPL_CODES_H */
