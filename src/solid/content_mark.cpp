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
[[nodiscard]] ResultCode ReadBlock(TrackedFile& file, i64 offset, TCommitBlock* block) {
    assert(offset >= kFirstCommitOffset);
    file.Forget();
    if (ResultCode rc = SeekTo(file, offset); rc != RC_OK) {
        return rc;
    }
    u32 got = 0;
    const ResultCode rc = ReadWhole(file, block, kCommitBlockSize, &got);
    if (rc != RC_OK) {
        file.Forget();
    }
    if (rc == RC_SYSTEM_ERROR) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to read block;sys-err %r,offset %I64d",
                       platform::LastSystemError(), offset);
    }
    return rc == RC_SHORT_READ ? kContentChanged : rc;
}

[[nodiscard]] ResultCode Compare(TrackedFile& file, i64 offset, const TCommitBlock& expected) {
    TCommitBlock found{};
    if (ResultCode rc = ReadBlock(file, offset, &found); rc != RC_OK) {
        return rc;
    }
    return std::memcmp(&found, &expected, kCommitBlockSize) == 0 ? ResultCode{RC_OK}
                                                                 : kContentChanged;
}

}  // namespace

ResultCode ContentMark::Take(TrackedFile& file) {
    assert(file.IsOpen());
    lastOffset = 0;
    const ResultCode rc = ReadBlock(file, kFirstCommitOffset, &first);
    taken = rc == RC_OK;
    return rc;
}

ResultCode ContentMark::Check(TrackedFile& file) const {
    if (lastOffset != 0) {
        if (ResultCode rc = Compare(file, lastOffset, last); rc != RC_OK) {
            return rc;
        }
    }
    return Compare(file, kFirstCommitOffset, first);
}

}  // namespace k9erepl
