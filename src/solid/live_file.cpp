// Reading a storage file that another process writes: loading it, loading on, and noticing that its
// content is not the one that was loaded. See content_mark.h for what tells.
//
// A read beside a write may see any mix of old and new pages. What the writer puts in front of a
// commit block is in the file before the block, so a load takes two looks: the first finds a commit
// block, the second, which begins afterwards, reads what lies in front of it and hands it out.
#include <algorithm>
#include <cassert>

#include "platform/system_error.h"
#include "solid/solid_storage.h"
#include "solid/storage_file_admin.h"
#include "support/log.h"

namespace k9erepl {

namespace {

// How far the first look goes ahead: the second one finds the bytes in the system's cache.
constexpr i64 kLookAheadSize = 32 * 1024 * 1024;

constexpr u32 kHeaderReadingsMost = 100;

u32 IgnoreRecord(std::uint64_t /*offset*/, const K9eReplRec* /*rec*/, void* /*ctx*/) {
    return RC_OK;
}

u32 IgnoreCommit(void* /*ctx*/, std::int64_t /*clearRev*/, std::int64_t /*commitRev*/) {
    return RC_OK;
}

i64 EndOf(const FileScan::Result& result) {
    return result.validCommitOffset + kCommitBlockSize;
}

}  // namespace

u32 CSolidStorage::Refresh(bool* goesOn) {
    assert(m_writer == nullptr && m_enumDepth == 0);
    platform::File opened;
    if (u32 rc = OpenAndCheckFile(m_state.path, kReadOnlyRequest, &opened); rc != RC_OK) {
        return rc;
    }
    i64 size = 0;
    if (!opened.GetSize(&size)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                       "Cannot get file size;sys-err %r,file path '%s'",
                       platform::LastSystemError(), m_state.path.c_str());
        return RC_SYSTEM_ERROR;
    }
    platform::TrackedFile file(std::move(opened), kFileHeaderSize);
    const ContentMark loaded{m_content.first, m_scanEnd.validCommitOffset, m_scanEnd.lastCommit};
    *goesOn = m_inUse && loaded.Check(file) == RC_OK;
    m_file = std::move(file);
    m_state.fileSize = size;
    InvalidateReads();
    if (!*goesOn) {
        ++m_layoutGeneration;
        m_inUse = false;
        // Dropped: a file without that block cannot be loaded, which the load says.
        (void)m_content.Take(m_file);
    }
    return RC_OK;
}

u32 CSolidStorage::ScanOn(K9eReplScanRecordCb recordCb, K9eReplScanCommitCb commitCb, void* ctx) {
    assert(m_inUse);
    const FileScan::Result from = m_scanEnd;
    return LoadLive({recordCb, commitCb, ctx}, {.resume = &from});
}

u32 CSolidStorage::LoadLive(const FileScanCallbacks& callbacks, const LiveStart& start) {
    FileScan::Result result;
    const u32 rc = ScanLive(callbacks, start, std::numeric_limits<i64>::max(), &result);
    InvalidateReads();
    if (rc != RC_OK) {
        return rc;
    }
    m_inUse = true;
    return TakeScanEnd(result);
}

// Hands out what is committed, up to a commit block that ends at or behind `enough`.
u32 CSolidStorage::ScanLive(const FileScanCallbacks& callbacks, const LiveStart& start, i64 enough,
                            FileScan::Result* result) {
    LiveStart from = start;
    if (start.resume != nullptr) {
        *result = *start.resume;
        from.offset = EndOf(*result);
    }
    bool lookedTwice = false;
    for (bool ended = false; !ended;) {
        FileScan::Result ahead;
        const i64 goal = std::min(enough, from.offset + kLookAheadSize);
        if (u32 rc = LookAhead(from, goal, &ahead); rc != RC_OK) {
            return rc;
        }
        const bool isNew = EndOf(ahead) > from.offset;
        if (isNew) {
            if (u32 rc = HandOut(callbacks, from, ahead, result); rc != RC_OK) {
                return rc;
            }
            from = {.offset = EndOf(*result), .resume = result};
        }
        ended = EndOf(ahead) >= enough || (EndOf(ahead) < goal && !ahead.stopInUse) ||
                (!isNew && lookedTwice);
        // What the writer had half-written in the first look may be whole in the second.
        lookedTwice = !isNew;
        result->stopOffset = ahead.stopOffset;
        result->stopInUse = ahead.stopInUse;
    }
    return RC_OK;
}

u32 CSolidStorage::LookAhead(const LiveStart& start, i64 enough, FileScan::Result* found) {
    i64 size = 0;
    if (!m_file.Raw().GetSize(&size)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                       "Cannot get file size;sys-err %r,file path '%s'",
                       platform::LastSystemError(), m_state.path.c_str());
        return RC_SYSTEM_ERROR;
    }
    m_state.fileSize = size;
    FileScan scan(m_file, {.fileSize = size, .enough = enough, .isLive = true},
                  {IgnoreRecord, IgnoreCommit, nullptr});
    const u32 rc = start.resume != nullptr ? scan.Resume(*start.resume)
                                           : scan.Run(start.offset, start.fromHint);
    *found = scan.GetResult();
    return rc;
}

bool CSolidStorage::GoesOnBehind(const FileScan::Result& end) {
    FileScan::Result ahead;
    const i64 oneMore = EndOf(end) + 1;
    return LookAhead({.resume = &end}, oneMore, &ahead) == RC_OK && EndOf(ahead) >= oneMore;
}

// Nothing is handed out of a read before the file is known to be unchanged behind it.
u32 CSolidStorage::HandOut(const FileScanCallbacks& callbacks, const LiveStart& start,
                           const FileScan::Result& ahead, FileScan::Result* result) {
    const i64 end = EndOf(ahead);
    const ContentMark mark{m_content.first, ahead.validCommitOffset, ahead.lastCommit};
    FileScan scan(m_file, {.fileSize = end, .enough = end, .isLive = true, .mark = &mark},
                  callbacks);
    const u32 rc = start.resume != nullptr ? scan.Resume(*start.resume)
                                           : scan.Run(start.offset, start.fromHint);
    if (rc != RC_OK) {
        return rc;
    }
    *result = scan.GetResult();
    return EndOf(*result) == end ? u32{RC_OK} : kContentChanged;
}

// What is loaded, or before the first load what is committed now.
u32 CSolidStorage::ScanLiveForHost(const FileScanCallbacks& callbacks) {
    i64 enough = m_scanEnd.validCommitOffset + kCommitBlockSize;
    if (!m_inUse) {
        enough = std::numeric_limits<i64>::max();
        (void)m_content.Take(m_file);  // dropped: what it could not read, the scan cannot either
    }
    FileScan::Result unused;
    const u32 rc = ScanLive(callbacks, {}, enough, &unused);
    if (rc == kContentChanged) {
        CheckEnumerated();  // says so, unless it is a callback's result
    }
    return rc;
}

// Commit blocks behind the one that closes the last record only raise the clear revision. They may
// be cut off when the file becomes the backup of a squeeze, and are not needed for reading.
void CSolidStorage::MarkContent(const FileScan::Result& loaded) {
    m_content.lastOffset = loaded.closingOffset;
    m_content.last = loaded.closing;
    const i64 end =
        loaded.closingOffset == 0 ? kFirstItemOffset : loaded.closingOffset + kCommitBlockSize;
    m_state.writePos.store(end, std::memory_order_release);
}

// The writer may be changing them: two readings that agree are what it wrote.
u32 CSolidStorage::ReadMarks(u32* lifenum, i64* clearOldRev) {
    TFileHeader header;
    if (u32 rc = ReadHeader(&header); rc != RC_OK) {
        return rc;
    }
    for (u32 attempt = 0; attempt < kHeaderReadingsMost; ++attempt) {
        *lifenum = header.lifenum;
        *clearOldRev = header.clearOldRev;
        if (u32 rc = ReadHeader(&header); rc != RC_OK) {
            return rc;
        }
        if (*lifenum == header.lifenum && *clearOldRev == header.clearOldRev) {
            return RC_OK;
        }
    }
    return kContentChanged;
}

u32 CSolidStorage::CheckContent() {
    return IsReadOnly() && m_content.taken ? m_content.Check(m_file) : u32{RC_OK};
}

// To be called between reading a piece of the file and handing it out.
u32 CSolidStorage::CheckEnumerated() {
    const u32 rc = CheckContent();
    if (rc != RC_OK) {
        InvalidateReads();
    }
    if (rc == kContentChanged) {
        LOG_ERROR_CODE(rc, kLogStorage,
                       "Storage file is not the one that was loaded; load it again;file '%s'",
                       m_state.path.c_str());
    }
    return rc;
}

}  // namespace k9erepl
