// The index file by its name: reading it, deleting it. Loading reads it, creating and deleting a
// storage file delete it. index_object.h writes it.
#ifndef K9EREPL_INDEX_INDEX_FILE_H
#define K9EREPL_INDEX_INDEX_FILE_H

#include <string>
#include <vector>

#include "format/index_file_format.h"
#include "index/index_file_name.h"
#include "platform/file.h"
#include "platform/int_types.h"

namespace k9erepl {

struct IndexFileContent {
    std::vector<TIndexEntry> entries;  // strictly ascending by revision and by offset
    u32 blockSize = 0;                 // of the storage that wrote the file; not checked
};

// Reads and checks the file at `path`. On failure *content is empty; the file is only an aid, so
// most failures are logged as warnings.
// Errors: RC_SYSTEM_ERROR, RC_SHORT_READ, RC_NOT_FOUND for a file that is no valid index file,
// RC_NO_MEMORY.
u32 ReadIndexFile(const std::string& path, IndexFileContent* content);

// Whether the file begins as a storage file does, with its signature and a version, and is as long
// as one at least. Nothing here
// empties, overwrites or deletes such a file, whatever path leads to it. False when it cannot be
// read.
bool IsStorageFile(const std::string& path);
// The same of an open file, whose pointer stands at its beginning and is moved. False, with
// LastSystemError(), when it cannot be read. An empty file is not read.
bool IsStorageFile(platform::File& file, bool* isStorage);

// Logs that the index file at `path` is a storage file; RC_INVALID_ARG.
u32 RefuseStorageFile(const std::string& path);

// Deletes the index file that `connStr` names. RC_OK also when it names none or there is none.
// Errors: RC_SYSTEM_ERROR; RC_INVALID_ARG for a storage file, which stays.
u32 DeleteIndexFile(const char* connStr);

}  // namespace k9erepl

#endif  // K9EREPL_INDEX_INDEX_FILE_H
