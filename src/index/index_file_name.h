// Says where the index file of a storage lies. The index and the storage file ask here, and the
// command-line tool compiles the source by itself: it needs no other part of the library.
#ifndef K9EREPL_INDEX_INDEX_FILE_NAME_H
#define K9EREPL_INDEX_INDEX_FILE_NAME_H

#include <string>

namespace k9erepl {

// The path of the index file: the value of the setting index_file, or else a path made from the
// setting file ("data.edb" gives "data.edb-idx"; "data" and "data." give "data.edb-idx", too).
// Empty when the storage has no index file: file is ":memory:" in any case of letters, or neither
// setting is given. docs/index-file.md, "Name", has the rules.
std::string IndexFileName(const char* connStr);

}  // namespace k9erepl

#endif  // K9EREPL_INDEX_INDEX_FILE_NAME_H
