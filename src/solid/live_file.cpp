// Reading a storage file beside its writer; see the header, and content_mark.h for what tells one
// content from another.
#include "solid/live_file.h"

#include <algorithm>
#include <cassert>
#include <limits>
#include <utility>

#include "solid/file_access.h"
#include "solid/storage_file_admin.h"
#include "support/log.h"

namespace k9erepl {

namespace {

// Bytes that the first look goes ahead at most, so that the second one still finds them in the
// system's cache.
constexpr i64 kLookAheadSize = 32 * 1024 * 1024;

// A writer changes the header now and then, so readings soon agree; this only keeps them from going
// on for ever.
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

ResultCode LiveFile::Refresh(const FileScan::Result& loaded, bool* goesOn) {
    assert(m_file.IsReadOnly() && goesOn != nullptr);
    platform::File opened;
    if (ResultCode rc = OpenAndCheckFile(m_file.Path(), kReadOnlyRequest, &opened); rc != RC_OK) {
        return rc;
    }
    i64 size = 0;
    if (ResultCode rc = GetSizeOf(opened, m_file.Path(), &size); rc != RC_OK) {
        return rc;
    }
    platform::TrackedFile reader(std::move(opened), kFileHeaderSize);
    const ContentMark mark{m_content.first, loaded.validCommitOffset, loaded.lastCommit};
    *goesOn = m_file.InUse() && mark.Check(reader) == RC_OK;
    m_file.TakeReader(std::move(reader), size);
    if (!*goesOn) {
        m_file.ItemsMoved();
        m_file.SetInUse(false);
        // Dropped: a file without that block cannot be loaded, which the load says.
        (void)m_content.Take(m_file.Reader());
    }
    return RC_OK;
}

ResultCode LiveFile::Scan(const FileScanCallbacks& callbacks, const Start& start, i64 enough,
                          FileScan::Result* result) {
    assert(m_file.IsReadOnly());
    Start from = start;
    if (start.resume != nullptr) {
        *result = *start.resume;
        from.offset = EndOf(*result);
    }
    bool lookedTwice = false;
    for (bool ended = false; !ended;) {
        FileScan::Result ahead;
        const i64 goal = std::min(enough, from.offset + kLookAheadSize);
        if (ResultCode rc = LookAhead(from, goal, &ahead); rc != RC_OK) {
            return rc;
        }
        const bool isNew = EndOf(ahead) > from.offset;
        if (isNew) {
            if (ResultCode rc = HandOut(callbacks, from, ahead, result); rc != RC_OK) {
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

ResultCode LiveFile::LookAhead(const Start& start, i64 enough, FileScan::Result* found) {
    i64 size = 0;
    if (ResultCode rc = m_file.UpdateFileSize(&size); rc != RC_OK) {
        return rc;
    }
    FileScan scan(m_file.Reader(), {.fileSize = size, .enough = enough, .isLive = true},
                  {IgnoreRecord, IgnoreCommit, nullptr});
    const ResultCode rc = start.resume != nullptr ? scan.Resume(*start.resume)
                                                  : scan.Run(start.offset, start.fromHint);
    *found = scan.GetResult();
    return rc;
}

bool LiveFile::GoesOnBehind(const FileScan::Result& end) {
    assert(m_file.IsReadOnly());
    FileScan::Result ahead;
    const i64 oneMore = EndOf(end) + 1;
    return LookAhead({.resume = &end}, oneMore, &ahead) == RC_OK && EndOf(ahead) >= oneMore;
}

// Nothing of a read is handed out before a check after it has shown the content to be unchanged.
ResultCode LiveFile::HandOut(const FileScanCallbacks& callbacks, const Start& start,
                             const FileScan::Result& ahead, FileScan::Result* result) {
    const i64 end = EndOf(ahead);
    assert(end > start.offset);
    const ContentMark mark{m_content.first, ahead.validCommitOffset, ahead.lastCommit};
    FileScan scan(m_file.Reader(), {.fileSize = end, .enough = end, .isLive = true, .mark = &mark},
                  callbacks);
    const ResultCode rc = start.resume != nullptr ? scan.Resume(*start.resume)
                                                  : scan.Run(start.offset, start.fromHint);
    if (rc != RC_OK) {
        return rc;
    }
    *result = scan.GetResult();
    return EndOf(*result) == end ? ResultCode{RC_OK} : kContentChanged;
}

ResultCode LiveFile::ScanForHost(const FileScanCallbacks& callbacks,
                                 const FileScan::Result& loaded) {
    i64 enough = EndOf(loaded);
    if (!m_file.InUse()) {
        enough = std::numeric_limits<i64>::max();
        // Dropped: what it could not read, the scan cannot read either.
        (void)m_content.Take(m_file.Reader());
    }
    FileScan::Result unused;
    const ResultCode rc = Scan(callbacks, {}, enough, &unused);
    if (rc == kContentChanged) {
        (void)CheckEnumerated();  // dropped: logs the change, unless it is a callback's result
    }
    return rc;
}

// Commit blocks behind the one that closes the last record only raise the clear revision. They may
// be cut off when the file becomes the backup of a squeeze, and are not needed for reading.
void LiveFile::MarkContent(const FileScan::Result& loaded) {
    assert(loaded.commitFound);
    m_content.lastOffset = loaded.closingOffset;
    m_content.last = loaded.closing;
    const i64 end =
        loaded.closingOffset == 0 ? kFirstItemOffset : loaded.closingOffset + kCommitBlockSize;
    m_file.State().writePos.store(end, std::memory_order_release);
}

// The writer may be changing them: two readings that agree are what it wrote.
ResultCode LiveFile::ReadMarks(u32* lifenum, i64* clearOldRev) {
    assert(lifenum != nullptr && clearOldRev != nullptr);
    TFileHeader header;
    if (ResultCode rc = m_file.ReadHeader(&header); rc != RC_OK) {
        return rc;
    }
    for (u32 attempt = 0; attempt < kHeaderReadingsMost; ++attempt) {
        *lifenum = header.lifenum;
        *clearOldRev = header.clearOldRev;
        if (ResultCode rc = m_file.ReadHeader(&header); rc != RC_OK) {
            return rc;
        }
        if (*lifenum == header.lifenum && *clearOldRev == header.clearOldRev) {
            return RC_OK;
        }
    }
    return kContentChanged;
}

ResultCode LiveFile::CheckContent() {
    return m_file.IsReadOnly() && m_content.taken ? m_content.Check(m_file.Reader())
                                                  : ResultCode{RC_OK};
}

ResultCode LiveFile::CheckEnumerated() {
    const ResultCode rc = CheckContent();
    if (rc != RC_OK) {
        m_file.InvalidateReads();
    }
    if (rc == kContentChanged) {
        LOG_ERROR_CODE(rc, kLogStorage,
                       "Storage file is not the one that was loaded; load it again;file '%s'",
                       m_file.Path().c_str());
    }
    return rc;
}

}  // namespace k9erepl
