// Two commit blocks by which a reader knows the content of a storage file again while another
// process writes it. A writer starts a file over by writing its first commit block anew, and takes
// back what it failed to flush by zeroing it, the closing commit block included: as long as both
// blocks are unchanged, so is everything between them. Used by the storage file when it is
// read-only: what was read before a successful check is the content that was loaded.
#ifndef K9EREPL_SOLID_CONTENT_MARK_H
#define K9EREPL_SOLID_CONTENT_MARK_H

#include <k9erepl/storage.h>

#include "format/storage_file_format.h"
#include "platform/int_types.h"
#include "platform/tracked_file.h"

namespace k9erepl {

// The code for a file whose content is not the one that was loaded: it is to be loaded again.
inline constexpr u32 kContentChanged = RC_WRONG_STATE;

struct ContentMark {
    TCommitBlock first{};  // the commit block at 1024
    i64 lastOffset = 0;    // of `last`; 0: there is no other commit block to look at
    TCommitBlock last{};
    bool taken = false;  // `first` was read; a file that ends before it has no content to compare

    // Reads the commit block at 1024 into `first`, and looks at no other block from now on.
    // Errors: kContentChanged when the file ends before it; RC_SYSTEM_ERROR.
    [[nodiscard]] u32 Take(platform::TrackedFile& file);

    // RC_OK when both blocks are in the file as they are here. Errors: kContentChanged,
    // RC_SYSTEM_ERROR. Logs failures of the system only.
    [[nodiscard]] u32 Check(platform::TrackedFile& file) const;
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_CONTENT_MARK_H
