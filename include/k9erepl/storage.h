/* The contract between the replication storage library and its clients: 24 C functions, their
 * result codes, the record and the callbacks. Compiles as C99 and as C++.
 *
 * Conventions of the whole interface:
 *  1. Every function but K9eReplStorageCleanup returns a result code: RC_OK, or the reason.
 *  2. An argument that a function lists as "not null" is tested first; a null one answers
 *     RC_INVALID_ARG, nothing is done and nothing is logged.
 *  3. An out-pointer is written only when the result is RC_OK.
 *  4. A handle comes from K9eReplStorageOpen and stays valid until it was closed as often as it
 *     was opened and duplicated. Closing it while another thread uses it is the client's error;
 *     a thread that needs the storage for longer holds a duplicate.
 *  5. Functions may be called from several threads on the same handle. Each one takes the
 *     storage's lock for its whole run, except K9eReplStorageGetNextRev and
 *     K9eReplStorageSetOn... The lock is recursive. Readers therefore wait while another thread's
 *     commit writes its flush, with force_flush=yes to the disk. A transaction belongs to the
 *     storage and not to a thread: see K9eReplStorageBeginTransaction before several threads write.
 *  6. Callbacks run with that lock held. A callback may call the library on the same handle and
 *     thread; it must not wait for another thread that needs the same storage.
 *  7. Revisions are signed 64-bit numbers, and the first one is 1. Sizes are bytes. Text is
 *     NUL-terminated and passed to the operating system as it stands.
 *  8. No exception leaves the library. Every error is logged where it is found, with the code that
 *     is returned, through the host's system library (<k9sys/k9sys.h>).
 *  9. An open storage belongs to the process that opened it. In a forked child every function with
 *     its handle answers RC_WRONG_STATE at once; nothing is logged. K9eReplStorageClose gives the
 *     child's descriptors and memory back, as far as no thread of the parent was using that memory
 *     at the fork, and leaves the file, the parent's position in it and its lock alone. The child
 *     may open storages of its own. A child that is forked inside a callback must not return from
 *     it: it ends by _exit or executes a program. */
#ifndef K9EREPL_STORAGE_H
#define K9EREPL_STORAGE_H

#include <stdint.h>

#if defined(_WIN32)
#define K9EREPL_CALL __cdecl
#if defined(K9EREPL_BUILDING)
#define K9EREPL_API /* src/api/exports.def lists what the DLL exports */
#else
#define K9EREPL_API __declspec(dllimport)
#endif
#else
#define K9EREPL_CALL
#if defined(__GNUC__)
#define K9EREPL_API __attribute__((visibility("default")))
#else
#define K9EREPL_API
#endif
#endif

#if defined(__GNUC__)
#define K9EREPL_EXTENSION __extension__
#else
#define K9EREPL_EXTENSION
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* --- Result codes --------------------------------------------------------------------------- */

/* RC_INVALID_ARG stands for a null pointer, a refused setting, a prepared revision below the next
 * one, a record larger than a block, and a file with another signature or version. */
#define RC_OK 0u                              /* success */
#define RC_NO_MEMORY 1u                       /* an allocation failed */
#define RC_INVALID_ARG 2u                     /* an argument or a setting is refused; see above */
#define RC_BAD_DATA 3u                        /* bad data in memory or in the file */
#define RC_SYSTEM_ERROR 4u                    /* a system call on a file, event or thread failed */
#define RC_NO_WRITER 6u                       /* no storage file is open, or it has no writer */
#define RC_PATH_TOO_LONG 7u                   /* the "file" value has 260 characters or more */
#define RC_ENUM_STOP 12u                      /* an enumeration was stopped by its visitor */
#define RC_NOT_SUPPORTED 16u                  /* the operation is not provided */
#define RC_ALREADY 17u                        /* already open, or already loaded */
#define RC_NOT_FOUND 21u                      /* the expected item is not where it should be */
#define RC_SHORT_READ 22u                     /* a read returned fewer bytes than asked */
#define RC_BAD_SIZE 23u                       /* a negative size, a refused writer setting */
#define RC_FILE_NOT_OPEN 24u                  /* the storage has no open file */
#define RC_TIMEOUT 25u                        /* a wait for the writer or a thread ran out */
#define RC_WRONG_STATE 27u                    /* not allowed in the storage's present state */
#define RC_NO_TRANSACTION 0x8011u             /* Commit without a transaction */
#define RC_TRANS_ROLLED_BACK 0x8012u          /* Commit of a nested level after a rollback */
#define RC_NO_TRANSACTION_TO_ROLLBACK 0x8013u /* Rollback without a transaction */
#define RC_BEGIN_AFTER_ROLLBACK 0x8014u       /* nested Begin after a rollback */
#define RC_FILE_CORRUPT 0x8021u               /* the file's structure cannot be loaded */
#define RC_IN_TRANSACTION 0x8024u             /* not allowed inside a transaction */
#define RC_NOT_OPEN 0x8034u                   /* a query while the storage is not loaded */

/* --- The record ----------------------------------------------------------------------------- */

/* One record, as the client hands it in and gets it back: 16 bytes of head, then the data.
 * Records lie packed and unaligned in memory and in the file, hence the alignment of 1: read the
 * fields through this structure, never through a pointer to a field. */
#pragma pack(push, 1)
#if defined(_MSC_VER)
#pragma warning(push)
#pragma warning(disable : 4200)
#elif defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wc99-extensions"
#endif
typedef struct K9eReplRec {
    int64_t rev;       /* revision: 1 .. 2^63 - 2 */
    uint32_t userWord; /* the client's own word, kept and handed back unchanged */
    uint32_t dataSize; /* bytes in data; at most block_size - 24, and with a storage file
                          at most 10,485,736 */
    K9EREPL_EXTENSION uint8_t data[];
} K9eReplRec;
#if defined(_MSC_VER)
#pragma warning(pop)
#elif defined(__clang__)
#pragma clang diagnostic pop
#endif
#pragma pack(pop)

/* --- Callbacks ------------------------------------------------------------------------------ */

/* A callback must not throw. If one does all the same, the exception ends at the exported function
 * that called it: that answers RC_NO_MEMORY for exhausted memory, RC_SYSTEM_ERROR for anything
 * else, and logs an error; the lock is free, and the storage is broken when a flush or a clear was
 * under way. On a thread of the library the exception is logged, too; one that OnWriteToFile throws
 * with async_mode=yes stops the writer, and later commits answer its code.
 *
 * A callback may close the last handle of its storage. The close is then carried out by the
 * outermost call that is under way, right before it returns; for an OnFlush by time-out that is a
 * thread of the library. No handle may be used after that. */

/* Receives one record of an enumeration. `rec` and its data are valid during the call only.
 * Returns 0 to go on; any other value ends the enumeration and becomes its result. */
typedef uint32_t(K9EREPL_CALL* K9eReplEnumCb)(const K9eReplRec* rec, void* cbContext);

/* Receives the last revision that was flushed (OnFlush) or written to the file (OnWriteToFile).
 * Both may insert and commit; a later flush covers that. One exception: with force_flush=yes,
 * without async_mode=yes, OnWriteToFile comes before the flush to disk, which may still fail and
 * would take back what was committed meanwhile. There K9eReplStorageBeginTransaction,
 * K9eReplStorageInsert and K9eReplStorageInsertP answer RC_WRONG_STATE, and so does
 * K9eReplStorageCommit inside a transaction that was open before; all else works. */
typedef void(K9EREPL_CALL* K9eReplFlushCb)(int64_t lastRev, void* cbContext);

/* --- Library -------------------------------------------------------------------------------- */

/* Does nothing and returns RC_OK. Meant as the first call of a client; optional. */
K9EREPL_API uint32_t K9EREPL_CALL K9eReplStorageStartup(void);

/* Does nothing. Meant as the last call of a client; optional. */
K9EREPL_API void K9EREPL_CALL K9eReplStorageCleanup(void);

/* --- Storage files -------------------------------------------------------------------------- */

/* What K9eReplStorageCreate does with a file that exists; K9EREPL_CREATE_KEEP_EXISTING wins over
 * K9EREPL_CREATE_REPLACE. */
#define K9EREPL_CREATE_NEW 0u           /* refuses it: the file must not exist yet */
#define K9EREPL_CREATE_REPLACE 1u       /* empties it, and deletes its index file */
#define K9EREPL_CREATE_KEEP_EXISTING 2u /* leaves it exactly as it is, whatever it holds */

/* Makes the storage file that `connStr` (not null) names with "file", with the missing directories
 * of its path, sized to "file_initial_size" MiB. For ":memory:" in any case of letters it does
 * nothing. `flags` is one of K9EREPL_CREATE_... above. A file that is open for writing anywhere is
 * not replaced: this answers RC_SYSTEM_ERROR and changes nothing.
 * After a failure half-way (a full disk, for example) a new file is deleted again; a file that was
 * to be replaced stays, but is not a storage any more.
 * Errors: RC_INVALID_ARG without "file", or for an index file that is a storage file or has a name
 * that its storage needs; RC_PATH_TOO_LONG, RC_NO_MEMORY, RC_SYSTEM_ERROR. */
K9EREPL_API uint32_t K9EREPL_CALL K9eReplStorageCreate(const char* connStr, uint32_t flags);

/* Deletes the index file and the storage file that `connStr` (not null) names. The storage must
 * not be open: while it is open for writing anywhere this answers RC_SYSTEM_ERROR and deletes
 * nothing. A missing index file is no error, a missing storage file is RC_SYSTEM_ERROR.
 * Errors: as K9eReplStorageCreate. */
K9EREPL_API uint32_t K9EREPL_CALL K9eReplStorageDelete(const char* connStr);

/* --- Life of a handle ----------------------------------------------------------------------- */

/* Opens the storage that `connStr` describes (both not null) and writes its handle. The storage
 * accepts nothing but K9eReplStorageLoad and the small accessors until it was loaded. The string
 * is copied. The storage file must exist unless flush_mode is NoFlush. It has one writer: while it
 * is open for writing here or in another process, this answers RC_SYSTEM_ERROR (setting
 * file_lock).
 * Errors: RC_INVALID_ARG or RC_BAD_SIZE for a refused setting, RC_NO_MEMORY, RC_SYSTEM_ERROR,
 * RC_PATH_TOO_LONG. No handle is written then. */
K9EREPL_API uint32_t K9EREPL_CALL K9eReplStorageOpen(const char* connStr, void** outHandle);

/* Gives one reference back (`handle` not null). The last one flushes what was committed, closes the
 * files, stops the storage's threads and frees everything. An open transaction is lost, and so is
 * one whose commit failed.
 * Always RC_OK, also when the last flush fails. A client that must know compares the last revision
 * that OnFlush reported, during the close too, with what it committed. */
K9EREPL_API uint32_t K9EREPL_CALL K9eReplStorageClose(void* handle);

/* Takes one more reference to the storage (both not null); the handle written is the same value
 * and needs a K9eReplStorageClose of its own. Always RC_OK. */
K9EREPL_API uint32_t K9EREPL_CALL K9eReplStorageDuplicateHandle(void* handle, void** outHandle);

/* Reads the storage file (`handle` not null), from where the index file allows, drops what was
 * never committed, starts the index thread and makes the storage ready for everything else. With
 * the setting check=yes it reads the whole file, and answers RC_FILE_CORRUPT, with nothing changed,
 * for a file that is damaged in the middle.
 * A storage is loaded once, unless it was opened with read_only=yes: then a loaded storage may be
 * loaded again and serves what was committed since, at a cost that depends on how much is new. A
 * repeated load that cannot open the file leaves what was loaded. It answers RC_WRONG_STATE when
 * the file changed each time it was read, and RC_ALREADY inside an enumeration on this thread.
 * Errors that change nothing: RC_ALREADY when the storage is loaded, also after a flush that
 * failed; RC_WRONG_STATE when it is broken.
 * Errors after which the storage is not open, and Load may be tried again: RC_FILE_CORRUPT,
 * RC_SYSTEM_ERROR, RC_NO_MEMORY, RC_INVALID_ARG without "file", and RC_SHORT_READ when the system
 * gives fewer bytes than the file has. */
K9EREPL_API uint32_t K9EREPL_CALL K9eReplStorageLoad(void* handle);

/* Throws the whole content away, in memory and in the file (`handle` not null): the next revision
 * is 1 again, life number and revision mark are 0. Works in any state and leaves the storage open,
 * as a load does. The file gets the length of file_initial_size if that is set, else it keeps its
 * own.
 * Errors: RC_IN_TRANSACTION inside a transaction, and from a callback in the middle of a flush or a
 * clear, with nothing changed; RC_SYSTEM_ERROR, RC_NO_MEMORY, after which the storage is broken and
 * the file has its old content, none, or is damaged at its beginning. */
K9EREPL_API uint32_t K9EREPL_CALL K9eReplStorageTruncate(void* handle);

/* --- Transactions --------------------------------------------------------------------------- */

/* Begins a transaction, or one more nested level of the open one. `handle` not null.
 *
 * A transaction belongs to the storage, not to a thread or a handle: there is one at most, and
 * every thread inserts into it. When two threads each begin, insert and commit, the second Begin
 * opens a nested level of the first one's transaction. The second thread's Commit then ends that
 * level only and its RC_OK is no promise: when the first thread rolls back, the records of both are
 * gone. An enumeration on any thread also delivers the records that are not committed yet. Clients
 * that write from several threads hold a lock of their own from Begin to the outermost Commit or
 * Rollback.
 * Errors: RC_WRONG_STATE, also from OnWriteToFile with force_flush=yes (see K9eReplFlushCb), or the
 * code of the storage file, which breaks the storage. */
K9EREPL_API uint32_t K9EREPL_CALL K9eReplStorageBeginTransaction(void* handle);

/* Ends one level. The outermost one makes the transaction's records part of the storage and
 * flushes them when flush_mode and its threshold say so. After a failed flush the transaction is
 * open again and the storage accepts only Commit (which tries again) and Rollback.
 * Errors: RC_NO_TRANSACTION, RC_TRANS_ROLLED_BACK, RC_WRONG_STATE, the code of a failed flush. */
K9EREPL_API uint32_t K9EREPL_CALL K9eReplStorageCommit(void* handle);

/* Ends all levels and takes every record and revision of the transaction back. It also clears what
 * a failed flush of the transaction left in the file; if that fails, the result is RC_OK all the
 * same, and the next write or the close clears it.
 * Errors: RC_NO_TRANSACTION_TO_ROLLBACK, RC_WRONG_STATE. */
K9EREPL_API uint32_t K9EREPL_CALL K9eReplStorageRollback(void* handle);

/* Appends `rec` (both not null) under the next revision, which is written into rec->rev. Outside a
 * transaction it is a transaction of its own. The record is copied. Inside a transaction, a record
 * that could not be placed uses up its revision all the same.
 * Errors: RC_WRONG_STATE; RC_INVALID_ARG for a record that does not fit a block or has no
 * revision left; RC_NO_MEMORY; outside a transaction also those of Commit. */
K9EREPL_API uint32_t K9EREPL_CALL K9eReplStorageInsert(void* handle, K9eReplRec* rec);

/* Appends `rec` under its own revision, which must not be below the next one; gaps are allowed.
 * Errors: as K9eReplStorageInsert; RC_INVALID_ARG also for a revision that is too low. */
K9EREPL_API uint32_t K9EREPL_CALL K9eReplStorageInsertP(void* handle, K9eReplRec* rec);

/* --- Reading -------------------------------------------------------------------------------- */

/* Hands every record with fromRev <= rev <= toRev to `cb`, in ascending order, those of the open
 * transaction included. Records older than the oldest kept revision are passed over. With a null
 * `cb` it answers RC_INVALID_ARG when a record would be delivered.
 * Returns RC_OK, the callback's non-zero value, RC_WRONG_STATE, or RC_BAD_DATA, RC_FILE_CORRUPT,
 * RC_SYSTEM_ERROR when stored data cannot be read, which breaks the storage. With read_only=yes
 * nothing breaks it, and RC_WRONG_STATE also says that the file no longer holds what was loaded:
 * load it again. */
K9EREPL_API uint32_t K9EREPL_CALL K9eReplStorageEnumRecords(void* handle, int64_t fromRev,
                                                            int64_t toRev, K9eReplEnumCb cb,
                                                            void* cbContext);

/* Writes the revision that the next Insert will assign (both not null). Takes no lock. */
K9EREPL_API uint32_t K9EREPL_CALL K9eReplStorageGetNextRev(void* handle, int64_t* out);

/* --- Marks ---------------------------------------------------------------------------------- */

/* Sets the life number of the data set, in the file's header too (not flushed to disk).
 * Errors: those of the file. The number is then unchanged, but the file may have the new one, which
 * the next opening then finds. */
K9EREPL_API uint32_t K9EREPL_CALL K9eReplStorageSetLifenum(void* handle, uint32_t lifenum);

/* Writes the life number (both not null); 0 in a new storage. */
K9EREPL_API uint32_t K9EREPL_CALL K9eReplStorageGetLifenum(void* handle, uint32_t* out);

/* What K9eReplStorageClearOldRev does to the storage file. Any other mode is a logical clear, too.
 * Logical: one commit block is written, nothing leaves the disk. Squeeze: what is kept moves to a
 * new file in the old one's place; with backup, the old file stays, with ".backup" appended to its
 * name. Mark: nothing is cleared, and `rev` becomes the revision mark. */
#define K9EREPL_CLEAR_LOGICAL 0u
#define K9EREPL_CLEAR_SQUEEZE 1u
#define K9EREPL_CLEAR_SQUEEZE_BACKUP 2u
#define K9EREPL_CLEAR_MARK 4u

/* Clears the records below `rev`: they are never served again, also after reopening. `rev` itself
 * stays; the next revision never changes. At or above the next revision everything goes and the
 * file starts over. A revision that is not above the oldest one changes nothing, but modes 1 and 2
 * still take out of the file what logical clears left there. In memory whole blocks leave at once.
 * A storage without a file knows one kind of clear, whatever the mode.
 *
 * A logical clear costs reading about a block. A squeeze copies all that is kept: it takes as long,
 * and as much free disk space, as a copy of the file, and holds the storage meanwhile. The copy
 * is made under the file's name with ".temporary" appended, which must be free: a file of that name
 * that a crash left must be deleted first. An older backup is replaced by the new one.
 *
 * Errors: RC_WRONG_STATE unless the storage is open; RC_IN_TRANSACTION inside a transaction and
 * from a callback in the middle of a flush or another clear; both change nothing. When the flush
 * before the clear fails, its code is returned, and Commit, Rollback or a later flush try again.
 * RC_SYSTEM_ERROR, RC_NO_MEMORY, RC_BAD_DATA, RC_FILE_CORRUPT: the storage is broken until it is
 * opened again, and then holds everything that was there before the clear or after it; only a clear
 * of everything may leave the beginning of the file damaged, as K9eReplStorageTruncate does. */
K9EREPL_API uint32_t K9EREPL_CALL K9eReplStorageClearOldRev(void* handle, int64_t rev,
                                                            uint32_t mode);

/* Writes the revision mark (both not null), which K9EREPL_CLEAR_MARK sets and the file keeps; 0 in
 * a new storage. */
K9EREPL_API uint32_t K9EREPL_CALL K9eReplStorageGetClearOldRev(void* handle, int64_t* out);

/* Clears all records: the same as K9eReplStorageClearOldRev with the next revision. */
K9EREPL_API uint32_t K9EREPL_CALL K9eReplStorageClearAll(void* handle, uint32_t mode);

/* --- Notifications -------------------------------------------------------------------------- */

/* Sets the function that is called after each flush with the flushed revision; null unsets it.
 * `cbContext` stays the client's. Takes no lock: set callbacks before the first transaction. With
 * the setting async_mode=yes the flush is queued then, not written. */
K9EREPL_API uint32_t K9EREPL_CALL K9eReplStorageSetOnFlushCallback(void* handle, K9eReplFlushCb cb,
                                                                   void* cbContext);

/* Sets the function that is called when a commit block has been written to the file, with the
 * last revision that it commits; null unsets it. Otherwise as K9eReplStorageSetOnFlushCallback.
 * With the setting async_mode=yes it is called on the writing thread and must call nothing of the
 * library but K9eReplStorageGetNextRev. (If it closes the last handle there all the same, the index
 * thread carries that out within flush_timeout.) */
K9EREPL_API uint32_t K9EREPL_CALL K9eReplStorageSetOnWriteToFileCallback(void* handle,
                                                                         K9eReplFlushCb cb,
                                                                         void* cbContext);

/* Hands out the storage-file object, an IK9eReplLLStorage* (storage_interfaces.h), valid as long
 * as the handle; no reference is added and no lock is taken.
 * Errors: RC_FILE_NOT_OPEN when the storage has no open file. */
K9EREPL_API uint32_t K9EREPL_CALL K9eReplStorageGetLLStorage(void* handle, void** out);

#ifdef __cplusplus
}
#endif

#endif /* K9EREPL_STORAGE_H */
