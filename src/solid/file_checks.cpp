// Small looks at the storage file before it is loaded: its first commit block, and whether a
// record lies where the index file says.
#include "solid/solid_storage.h"
#include "support/log.h"

namespace k9erepl {

u32 CSolidStorage::ReadFirstCommitInfo(i64* commitRev, bool* hasItems) {
    static constexpr u32 kInfoSize = kCommitBlockSize + kSignatureSize;
    if (!IsOpen() || m_writer == nullptr) {
        return RC_NO_WRITER;
    }
    if (FileSize() < kFirstCommitOffset + i64{kInfoSize}) {
        LOG_ERROR_CODE(RC_NOT_FOUND, kLogStorage, "File too short");
        return RC_NOT_FOUND;
    }
    TCommitBlock block;
    u32 signature = 0;
    if (ReadAt(kFirstCommitOffset, &block, kCommitBlockSize) != RC_OK ||
        ReadAt(kFirstItemOffset, &signature, kSignatureSize) != RC_OK) {
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

u32 CSolidStorage::CheckRecordAt(i64 rev, i64 offset) {
    if (!IsOpen() || m_writer == nullptr) {
        return RC_NO_WRITER;
    }
    const i64 lastHeadOffset = FileSize() - kRecordHeadSize;
    if (offset < 0 || offset > lastHeadOffset) {
        return RC_NOT_FOUND;
    }
    TRecordHead head;
    if (u32 rc = ReadAt(offset, &head, kRecordHeadSize); rc != RC_OK) {
        return rc;
    }
    const bool holds = head.signature == kRecordSignature &&
                       u64{head.size} == u64{head.dataSize} + kRecordHeadSize &&
                       i64{head.size} <= FileSize() - offset && head.rev == rev;
    return holds ? RC_OK : RC_NOT_FOUND;
}

}  // namespace k9erepl
