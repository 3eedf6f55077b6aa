// The mark of a content; see the header.
#include "solid/content_mark.h"

#include <cassert>
#include <cstring>

#include "solid/file_access.h"

namespace k9erepl {

using platform::TrackedFile;

namespace {

// kContentChanged when the file ends before the block. Seeks each time, wherever the pointer is
// believed to be.
[[nodiscard]] u32 ReadBlock(TrackedFile& file, i64 offset, TCommitBlock* block) {
    assert(offset >= kFirstCommitOffset);
    file.Forget();
    if (u32 rc = SeekTo(file, offset); rc != RC_OK) {
        return rc;
    }
    u32 got = 0;
    const u32 rc = ReadWhole(file, block, kCommitBlockSize, &got);
    if (rc != RC_OK) {
        file.Forget();
    }
    if (rc == RC_SYSTEM_ERROR) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to read block;sys-err %r,offset %I64d",
                       platform::LastSystemError(), offset);
    }
    return rc == RC_SHORT_READ ? kContentChanged : rc;
}

[[nodiscard]] u32 Compare(TrackedFile& file, i64 offset, const TCommitBlock& expected) {
    TCommitBlock found{};
    if (u32 rc = ReadBlock(file, offset, &found); rc != RC_OK) {
        return rc;
    }
    return std::memcmp(&found, &expected, kCommitBlockSize) == 0 ? u32{RC_OK} : kContentChanged;
}

}  // namespace

u32 ContentMark::Take(TrackedFile& file) {
    assert(file.IsOpen());
    lastOffset = 0;
    const u32 rc = ReadBlock(file, kFirstCommitOffset, &first);
    taken = rc == RC_OK;
    return rc;
}

u32 ContentMark::Check(TrackedFile& file) const {
    if (lastOffset != 0) {
        if (u32 rc = Compare(file, lastOffset, last); rc != RC_OK) {
            return rc;
        }
    }
    return Compare(file, kFirstCommitOffset, first);
}

}  // namespace k9erepl
