// Two commit blocks by which a reader recognises the content of a storage file again while another
// process writes it. A writer starts a file over by writing its first commit block anew, and takes
// back what it failed to flush by zeroing it, the closing commit block included. So as long as both
// blocks are unchanged, everything between them is unchanged, too. The storage file uses it when it
// is read-only: what was read before a successful check is the content that was loaded.
#ifndef K9EREPL_SOLID_CONTENT_MARK_H
#define K9EREPL_SOLID_CONTENT_MARK_H

#include <k9erepl/storage.h>

#include "format/storage_file_format.h"
#include "platform/int_types.h"
#include "platform/tracked_file.h"
#include "support/result.h"

namespace k9erepl {

// The code for a file whose content is not the one that was loaded: it has to be loaded again.
inline constexpr u32 kContentChanged = RC_WRONG_STATE;

// Holds copies of both blocks. Both functions move the file's pointer; one thread at a time.
struct ContentMark {
    TCommitBlock first{};  // the commit block at 1024; zeros before Take
    // The file offset of `last`; 0: there is no other commit block to look at.
    i64 lastOffset = 0;
    // The commit block that closes what was loaded.
    TCommitBlock last{};
    // `first` was read. False for a file that ends before it, which has no content to compare.
    bool taken = false;

    // Reads the commit block at 1024 into `first`, and looks at no other block from now on.
    // Errors: kContentChanged when the file ends before it; RC_SYSTEM_ERROR.
    [[nodiscard]] ResultCode Take(platform::TrackedFile& file);

    // RC_OK when both blocks are in the file as they are here. Errors: kContentChanged,
    // RC_SYSTEM_ERROR. Logs failures of the system only.
    [[nodiscard]] ResultCode Check(platform::TrackedFile& file) const;
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_CONTENT_MARK_H
