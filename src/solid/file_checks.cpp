// Small looks at the storage file; see the header.
#include "solid/file_checks.h"

#include <algorithm>
#include <cassert>

#include "format/stream_rules.h"
#include "platform/memory.h"
#include "support/log.h"

namespace k9erepl {

ResultCode ReadFirstCommitInfo(StorageFile& file, i64* commitRev, bool* hasItems) {
    assert(commitRev != nullptr && hasItems != nullptr);
    if (!file.IsOpen()) {
        return RC_NO_WRITER;
    }
    if (file.FileSize() < kFirstItemOffset) {
        LOG_ERROR_CODE(RC_NOT_FOUND, kLogStorage, "File too short");
        return RC_NOT_FOUND;
    }
    TCommitBlock block;
    u32 signature = 0;
    const bool mayHaveItems = file.FileSize() >= kFirstItemOffset + i64{kSignatureSize};
    if (file.ReadAt(kFirstCommitOffset, &block, kCommitBlockSize) != RC_OK ||
        (mayHaveItems && file.ReadAt(kFirstItemOffset, &signature, kSignatureSize) != RC_OK)) {
        return RC_SYSTEM_ERROR;
    }
    if (block.signature != kCommitSignature) {
        LOG_ERROR_CODE(RC_NOT_FOUND, kLogStorage, "Expected info not found");
        return RC_NOT_FOUND;
    }
    *commitRev = block.commitRev;
    *hasItems = signature == kCommitSignature || signature == kRecordSignature;
    return RC_OK;
}

ResultCode CheckRecordAt(StorageFile& file, i64 rev, i64 offset) {
    if (!file.IsOpen()) {
        return RC_NO_WRITER;
    }
    const i64 lastHeadOffset = file.FileSize() - kRecordHeadSize;
    if (offset < 0 || offset > lastHeadOffset) {
        return RC_NOT_FOUND;
    }
    TRecordHead head;
    if (ResultCode rc = file.ReadAt(offset, &head, kRecordHeadSize); rc != RC_OK) {
        return rc;
    }
    const bool holds = head.signature == kRecordSignature && SizesAgree(head) &&
                       i64{head.size} <= file.FileSize() - offset && head.rev == rev;
    return holds ? RC_OK : RC_NOT_FOUND;
}

namespace {

constexpr u32 kLookBackSize = 64 * 1024;

// The highest revision of all records and commit blocks that may end where these bytes end; 0:
// there is none. A record's data may look like a head, and then the highest revision is the safe
// one.
i64 HighestRevOfEnd(const u8* bytes, u32 size) {
    assert(bytes != nullptr);
    i64 highest = 0;
    if (size >= kCommitBlockSize) {
        const auto block = LoadUnaligned<TCommitBlock>(bytes + size - kCommitBlockSize);
        if (block.signature == kCommitSignature) {
            highest = block.commitRev;
        }
    }
    for (u32 left = kRecordHeadSize; left <= size; ++left) {
        const u8* const begin = bytes + size - left;
        if (LoadUnaligned<u32>(begin) != kRecordSignature) {
            continue;
        }
        const auto head = LoadUnaligned<TRecordHead>(begin);
        if (head.size == left && SizesAgree(head)) {
            highest = std::max<i64>(highest, head.rev);
        }
    }
    return highest;
}

}  // namespace

ResultCode FindRevBefore(StorageFile& file, i64 offset, i64* rev) {
    assert(offset >= kFirstItemOffset && rev != nullptr);
    const platform::MemoryBuffer buffer = platform::AllocBuffer(kLookBackSize);
    if (buffer == nullptr) {
        return RC_NO_MEMORY;
    }
    const i64 from = std::max(offset - kLookBackSize, kFirstCommitOffset);
    const auto size = static_cast<u32>(offset - from);
    if (ResultCode rc = file.ReadAt(from, buffer.get(), size); rc != RC_OK) {
        return rc;
    }
    const i64 highest = HighestRevOfEnd(buffer.get(), size);
    if (highest <= 0) {
        return RC_NOT_FOUND;
    }
    *rev = highest;
    return RC_OK;
}

}  // namespace k9erepl
