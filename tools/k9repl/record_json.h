// A record as a line of JSON, for the cat command: {"rev":1,"userWord":0,"size":5,"data":"hello"}.
#ifndef K9EREPL_K9REPL_RECORD_JSON_H
#define K9EREPL_K9REPL_RECORD_JSON_H

#include <k9erepl/storage.h>

#include <string>

namespace k9repl {

// Appends the line with its newline. Data that is not UTF-8 becomes "base64" instead of "data".
// Written directly, without a tree of values: a storage may have many millions of records.
// Throws std::bad_alloc.
void AppendJson(const K9eReplRec& record, std::string* text);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_RECORD_JSON_H
