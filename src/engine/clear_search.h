// Finds where the kept part of a block begins in the file when older records of it are to go:
// a visitor for an enumeration of the file, commit blocks included.
#ifndef K9EREPL_ENGINE_CLEAR_SEARCH_H
#define K9EREPL_ENGINE_CLEAR_SEARCH_H

#include <k9erepl/storage.h>

#include "format/storage_file_format.h"
#include "platform/int_types.h"

namespace k9erepl {

struct ClearSearch {
    i64 minRev = 0;                          // records below it are to go
    i64 newFirstRev = 0;                     // of the first record that stays
    i64 newFirstRecOffset = kUnknownOffset;  // its file offset
    i64 commitOffset = kUnknownOffset;       // of the first commit block behind it
    u32 recSz = 0;                           // bytes of the records that go

    bool FoundKept() const { return newFirstRecOffset != kUnknownOffset; }

    // A FileItemVisitor; `ctx` is a ClearSearch. Stops with RC_ENUM_STOP at commitOffset.
    [[nodiscard]] static u32 Visit(i64 offset, const K9eReplRec* rec, void* ctx);
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_CLEAR_SEARCH_H
