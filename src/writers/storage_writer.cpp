// What all writers share: the file handle, positions, growth, and the clearing of abandoned bytes;
// see storage_writer.h. Called by the writers, and by the storage file for SetWritePos and
// ReopenFile.
#include "writers/storage_writer.h"

#include <algorithm>
#include <cassert>
#include <cstddef>

#include "platform/system_error.h"
#include "support/log.h"
#include "support/storage_exception.h"

namespace k9erepl {

namespace {

StorageFileState& NotNull(StorageFileState* state) {
    if (state == nullptr) {
        throw K9eStorageException(RC_INVALID_ARG);
    }
    return *state;
}

ResultCode OpenForWriting(platform::File& file, const std::string& path, bool writeThrough) {
    platform::FileOpenRequest request;
    request.writeThrough = writeThrough;
    if (!file.Open(path.c_str(), request)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Failed to create file '%s';sys-err %r",
                       path.c_str(), platform::LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    return RC_OK;
}

i64 CutSize(i64 dataSize) {
    return std::max(dataSize, i64{kNewFileSize});
}

}  // namespace

StorageWriter::StorageWriter(StorageFileState* state)
    : m_state(NotNull(state)),
      m_queuedEnd(m_state.fileSize.load(std::memory_order_relaxed)),
      m_fileCurrWritePos(m_state.writePos),
      m_growthStep(m_state.fileSizeDelta) {
    m_fileCurrWritePos = m_queuedEnd;
    if (const ResultCode rc = OpenForWriting(m_file, m_state.path, m_state.writeThrough);
        rc != RC_OK) {
        throw K9eStorageException(rc);
    }
}

ResultCode StorageWriter::SetWritePos(i64 position, bool doSeek, bool tailAbandoned) {
    if (doSeek && !m_file.Seek(position)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                       "Cannot seek to write pos;offset %I64d, sys-err %r", position,
                       platform::LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    m_pointerInPlace = doSeek;
    RaiseTail(tailAbandoned ? Tail::kFound : Tail::kClear);
    m_transStart.reset();
    m_fileCurrWritePos.store(position, std::memory_order_release);
    m_queuedEnd = position;
    return RC_OK;
}

ResultCode StorageWriter::ReopenFile(const std::string& path, bool writeThrough) {
    if (const ResultCode rc = OpenForWriting(m_file, path, writeThrough); rc != RC_OK) {
        return rc;
    }
    m_pointerInPlace = false;
    m_tail = Tail::kClear;
    return RC_OK;
}

ResultCode StorageWriter::WriteNow(u8* data, u32 size, TCommitBlock* commitBlock, i64 lastRevision,
                                   std::atomic<i64>* filePosition) {
    if (commitBlock != nullptr) {
        SetClearRev(*commitBlock);
    }
    const bool barrier = commitBlock != nullptr && m_state.forceFlush && m_state.commitBarrier;
    const ResultCode rc = WritePiece(data, size, commitBlock, lastRevision, filePosition, barrier);
    if (rc == RC_OK && commitBlock != nullptr) {
        // The callback is foreign code and may call us again: everything of ours is settled before
        // it.
        m_state.onWritten.Call(commitBlock->commitRev);
    }
    return rc;
}

ResultCode StorageWriter::WritePiece(u8* data, u32 size, TCommitBlock* commitBlock,
                                     i64 lastRevision, std::atomic<i64>* filePosition,
                                     bool barrier) {
    assert(commitBlock == nullptr ||
           reinterpret_cast<u8*>(commitBlock) + kCommitBlockSize == data + size);
    if (!m_file.IsOpen()) {
        return RC_NO_WRITER;
    }
    if (const ResultCode rc = PrepareWrite(size); rc != RC_OK) {
        return rc;
    }
    if (commitBlock != nullptr) {
        Link(*commitBlock);
    }
    const i64 offset = WritePos();
    if (const ResultCode rc = barrier ? WriteBehindBarrier(data, size) : WriteBytes(data, size);
        rc != RC_OK) {
        return rc;
    }
    if (filePosition != nullptr) {
        i64 unknown = kUnknownOffset;
        filePosition->compare_exchange_strong(unknown, offset);
    }
    if (commitBlock != nullptr) {
        m_state.lastCommitSequence.store(commitBlock->sequence, std::memory_order_release);
    }
    LOG_INFO(kLogStorage, "Written data size %P, last rev %I64d", std::size_t{size}, lastRevision);
    return RC_OK;
}

ResultCode StorageWriter::RememberTransactionStart(i64 position, i64 lastFlushedRev) {
    if (!m_file.IsOpen()) {
        return RC_NO_WRITER;
    }
    m_transStart = {position, lastFlushedRev,
                    m_state.lastCommitSequence.load(std::memory_order_acquire)};
    return RC_OK;
}

ResultCode StorageWriter::RollbackNow() {
    if (!m_file.IsOpen()) {
        return RC_NO_WRITER;
    }
    if (!m_transStart) {
        return RC_OK;
    }
    assert(m_transStart->position <= WritePos());
    const i64 position = m_transStart->position;
    RaiseTail(position < WritePos() ? Tail::kUndone : Tail::kClear);
    m_fileCurrWritePos.store(position, std::memory_order_release);
    m_queuedEnd = position;
    m_state.lastFlushedRev.store(m_transStart->lastFlushedRev, std::memory_order_release);
    m_state.lastCommitSequence.store(m_transStart->lastCommitSequence, std::memory_order_release);
    m_pointerInPlace = m_file.Seek(position);
    if (!m_pointerInPlace) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Cannot seek to the pos (%I64d);sys-err %r",
                       position, platform::LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    return RC_OK;
}

ResultCode StorageWriter::ClearUndoneNow() {
    if (!m_file.IsOpen()) {
        return RC_NO_WRITER;
    }
    return HasUndone() ? ClearAbandonedTail() : ResultCode{RC_OK};
}

void StorageWriter::RaiseTail(Tail tail) {
    m_tail = std::max(m_tail.load(std::memory_order_relaxed), tail);
}

ResultCode StorageWriter::FlushNow() {
    if (!m_file.IsOpen()) {
        return RC_NO_WRITER;
    }
    if (!m_state.forceFlush) {
        return RC_OK;
    }
    LOG_INFO(kLogStorage, "FlushFile flushedRev %I64d",
             m_state.lastFlushedRev.load(std::memory_order_acquire));
    return ForceToDisk();
}

ResultCode StorageWriter::ForceToDisk() {
    if (!m_file.FlushToDisk()) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "FlushFileBuffers failed;sys-err %r",
                       platform::LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    m_unforced = false;
    return RC_OK;
}

ResultCode StorageWriter::PrepareWrite(u32 size) {
    if (m_tail.load(std::memory_order_relaxed) != Tail::kClear) {
        if (const ResultCode rc = ClearAbandonedTail(); rc != RC_OK) {
            return rc;
        }
    }
    const i64 recordedSize = m_state.fileSize.load(std::memory_order_acquire);
    if (m_growthStep > 0 && WritePos() + size > recordedSize) {
        return ExpandFile();
    }
    return m_pointerInPlace ? RC_OK : SeekToWritePos();
}

void StorageWriter::SetClearRev(TCommitBlock& commitBlock) const {
    commitBlock.clearRev = m_state.clearRev.load(std::memory_order_acquire);
}

void StorageWriter::Link(TCommitBlock& commitBlock) const {
    commitBlock.prevSequence = m_state.lastCommitSequence.load(std::memory_order_acquire);
}

ResultCode StorageWriter::WriteBytes(const void* data, u32 size) {
    assert(m_pointerInPlace);
    const i64 position = WritePos();
    LOG_INFO(kLogStorage, "Write to Handle: 0x%p Data: 0x%p Size: %P m_fileCurrWritePos: %llu ",
             m_file.Native(), data, std::size_t{size}, static_cast<u64>(position));
    m_unforced = true;
    u32 put = 0;
    if (!m_file.Write(data, size, &put)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Cannot write data;sys-err %r",
                       platform::LastSystemError());
        RaiseTail(Tail::kUndone);
        m_pointerInPlace = false;
        return RC_SYSTEM_ERROR;
    }
    m_fileCurrWritePos.store(position + size, std::memory_order_release);
    return RC_OK;
}

// The commit block is the last 32 bytes of `data`. PrepareWrite has made room for all of it:
// growing the file between the two writes would grow it further than one write does.
ResultCode StorageWriter::WriteBehindBarrier(const u8* data, u32 size) {
    const i64 start = WritePos();
    const u32 before = size - kCommitBlockSize;
    ResultCode rc = before == 0 ? ResultCode{RC_OK} : WriteBytes(data, before);
    if (rc == RC_OK && m_unforced) {
        LOG_INFO(kLogStorage, "Flush before commit block;offset %I64d", WritePos());
        rc = ForceToDisk();
    }
    if (rc == RC_OK) {
        rc = WriteBytes(data + before, kCommitBlockSize);
    }
    if (rc != RC_OK && WritePos() != start) {
        m_fileCurrWritePos.store(start, std::memory_order_release);
        RaiseTail(Tail::kUndone);
        m_pointerInPlace = false;
    }
    return rc;
}

ResultCode StorageWriter::ClearAbandonedTail() {
    const i64 position = WritePos();
    m_pointerInPlace = false;
    if (!ZeroTail(position) || (m_state.forceFlush && !m_file.FlushToDisk())) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                       "Cannot clear abandoned data;offset %I64d,sys-err %r", position,
                       platform::LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    m_tail = Tail::kClear;
    return RC_OK;
}

// Cutting the file and extending it again makes the system deliver zeros there. That costs nothing
// for a large file, and needs no space on a full disk.
bool StorageWriter::ZeroTail(i64 position) {
    i64 size = 0;
    if (!m_file.GetSize(&size)) {
        return false;
    }
    if (size <= position) {
        return true;
    }
    if (!CutFile(m_file, position)) {
        return false;
    }
    if (!m_file.SetEnd(size)) {
        m_state.fileSize.store(CutSize(position), std::memory_order_release);
        return false;
    }
    LOG_INFO(kLogStorage, "Abandoned data was cleared;offset %I64d,file size %I64d", position,
             size);
    return true;
}

bool StorageWriter::CutFile(platform::File& file, i64 dataSize) {
    const i64 cut = CutSize(dataSize);
    if (dataSize < cut) {
        static constexpr u8 kZeros[kNewFileSize - kFirstItemOffset] = {};
        assert(cut - dataSize <= i64{sizeof kZeros});
        u32 put = 0;
        if (!file.Seek(dataSize) || !file.Write(kZeros, static_cast<u32>(cut - dataSize), &put)) {
            return false;
        }
    }
    return file.SetEnd(cut);
}

ResultCode StorageWriter::SeekToWritePos() {
    const i64 position = WritePos();
    m_pointerInPlace = m_file.Seek(position);
    if (!m_pointerInPlace) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Cannot seek to offset %I64d;sys-err %r",
                       position, platform::LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    return RC_OK;
}

ResultCode StorageWriter::ExpandFile() {
    const i64 newSize = m_state.fileSize.fetch_add(m_growthStep) + m_growthStep;
    m_pointerInPlace = false;
    // A single write may have passed the recorded size by more than one step.
    if (!m_file.SetEnd(std::max(newSize, WritePos()))) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Cannot expand file by (%I64d);sys-err %r",
                       m_growthStep, platform::LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    if (const ResultCode rc = SeekToWritePos(); rc != RC_OK) {
        return rc;
    }
    LOG_INFO(kLogStorage, "File was expanded; new size %I64d ", newSize);
    return RC_OK;
}

}  // namespace k9erepl
