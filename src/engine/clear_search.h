// Finds where the kept part of a block begins in the file when older records of the block are
// removed: as a visitor for an enumeration of the file that includes commit blocks, or in the
// blocks in memory. The clearer uses it at a clear, the loader when the file holds records below
// the clear revision.
#ifndef K9EREPL_ENGINE_CLEAR_SEARCH_H
#define K9EREPL_ENGINE_CLEAR_SEARCH_H

#include <k9erepl/storage.h>

#include "format/storage_file_format.h"
#include "platform/int_types.h"
#include "support/result.h"

namespace k9erepl {

// The caller sets minRev and runs one enumeration from the block that holds it; the other fields
// receive what the enumeration found.
struct ClearSearch {
    // Records below this revision are removed.
    i64 minRev = 0;
    // The revision of the first record that stays; 0 until it is found.
    i64 newFirstRev = 0;
    // The file offset where that record begins.
    i64 newFirstRecOffset = kUnknownOffset;
    // The file offset of the first commit block behind that record: a squeezed file's chain begins
    // there. A search that stops at the first kept record leaves it unknown.
    i64 commitOffset = kUnknownOffset;
    // The enumeration is to stop at the first kept record.
    bool stopAtKept = false;
    // Bytes of the records that are removed, heads included: by so much the block in memory is cut.
    u32 recSz = 0;

    // False when no record at or above minRev was visited.
    bool FoundKept() const { return newFirstRecOffset != kUnknownOffset; }

    // A FileItemVisitor; `ctx` is a ClearSearch. Stops the enumeration with RC_ENUM_STOP at
    // commitOffset, or at the first kept record. A result RC_OK of the enumeration means that the
    // file ended first.
    [[nodiscard]] static ResultCode Visit(i64 offset, const K9eReplRec* rec, void* ctx);
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_CLEAR_SEARCH_H
