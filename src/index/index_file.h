// The index file by its name: reading and deleting it. A load reads it; creating and deleting a
// storage file delete it. The index object (index_object.h) has it written.
#ifndef K9EREPL_INDEX_INDEX_FILE_H
#define K9EREPL_INDEX_INDEX_FILE_H

#include <string>
#include <vector>

#include "format/index_file_format.h"
#include "index/index_file_name.h"
#include "platform/file.h"
#include "platform/int_types.h"
#include "support/result.h"

namespace k9erepl {

struct IndexFileContent {
    // Rises strictly by revision and by offset; empty when nothing was read.
    std::vector<TIndexEntry> entries;
    // The setting block_size of the storage that wrote the file, in bytes. Not checked: may be 0.
    u32 blockSize = 0;
};

// Reads and checks the file at `path`, by the rules of docs/index-file.md. On failure *content is
// empty. The file is only an aid, so most failures are logged as warnings.
// Errors: RC_SYSTEM_ERROR, RC_SHORT_READ, RC_NOT_FOUND for a file that is not a valid index file,
// RC_NO_MEMORY.
[[nodiscard]] ResultCode ReadIndexFile(const std::string& path, IndexFileContent* content);

// Tells whether the file begins as a storage file does, with its signature and a version from 1 to
// 31, and is at least as long as one, 1056 bytes. The functions of this folder never empty,
// overwrite or delete such a file, whatever path leads to it. False also when it cannot be read.
bool IsStorageFile(const std::string& path);
// The same for an open file, whose pointer stands at its beginning and is moved. Returns false,
// with LastSystemError(), when the file cannot be read; *isStorage is then false. An empty file is
// not read.
bool IsStorageFile(platform::File& file, bool* isStorage);

// Logs that the index file at `path` is a storage file. Returns RC_INVALID_ARG.
[[nodiscard]] ResultCode RefuseStorageFile(const std::string& path);

// Deletes the index file that `connStr` names. Returns RC_OK also when it names none or when there
// is no such file.
// Errors: RC_SYSTEM_ERROR; RC_INVALID_ARG for a storage file, which stays.
[[nodiscard]] ResultCode DeleteIndexFile(const char* connStr);

}  // namespace k9erepl

#endif  // K9EREPL_INDEX_INDEX_FILE_H
