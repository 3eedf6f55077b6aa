// The mark of a content; see the header.
#include "solid/content_mark.h"

#include <cstring>

#include "solid/file_access.h"

namespace k9erepl {

namespace {

// kContentChanged when the file ends before it.
u32 ReadBlock(platform::File& file, i64& filePos, i64 offset, TCommitBlock* block) {
    filePos = kUnknownOffset;
    if (u32 rc = SeekTo(file, offset); rc != RC_OK) {
        return rc;
    }
    u32 got = 0;
    const u32 rc = ReadWhole(file, block, kCommitBlockSize, &got);
    if (rc == RC_OK) {
        filePos = offset + kCommitBlockSize;
    }
    if (rc == RC_SYSTEM_ERROR) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to read block;sys-err %r,offset %I64d",
                       platform::LastSystemError(), offset);
    }
    return rc == RC_SHORT_READ ? kContentChanged : rc;
}

u32 Compare(platform::File& file, i64& filePos, i64 offset, const TCommitBlock& expected) {
    TCommitBlock found{};
    if (u32 rc = ReadBlock(file, filePos, offset, &found); rc != RC_OK) {
        return rc;
    }
    return std::memcmp(&found, &expected, kCommitBlockSize) == 0 ? u32{RC_OK} : kContentChanged;
}

}  // namespace

u32 ContentMark::Take(platform::File& file, i64& filePos) {
    lastOffset = 0;
    const u32 rc = ReadBlock(file, filePos, kFirstCommitOffset, &first);
    taken = rc == RC_OK;
    return rc;
}

u32 ContentMark::Check(platform::File& file, i64& filePos) const {
    if (lastOffset != 0) {
        if (u32 rc = Compare(file, filePos, lastOffset, last); rc != RC_OK) {
            return rc;
        }
    }
    return Compare(file, filePos, kFirstCommitOffset, first);
}

}  // namespace k9erepl
