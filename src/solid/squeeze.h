// The squeeze: copies what is kept of the storage file to a new file, which takes the place of the
// old one. Everything is on the disk before a name changes. CSolidStorage makes one for each
// squeeze that a clear asks for. docs/storage-file.md ("Removing data") says what a crash leaves at
// each step.
#ifndef K9EREPL_SOLID_SQUEEZE_H
#define K9EREPL_SOLID_SQUEEZE_H

#include <string>

#include "format/storage_file_format.h"
#include "platform/file.h"
#include "platform/int_types.h"
#include "solid/file_clear.h"
#include "solid/file_replace.h"
#include "solid/storage_file.h"
#include "support/result.h"

namespace k9erepl {

// What a squeeze keeps of the file, and what else it does.
struct SqueezeRequest {
    i64 clearRev = 0;         // revision; becomes the file's clear revision
    i64 copyFrom = 0;         // file offset of the first item that is kept
    i64 commitOffset = 0;     // file offset of the first commit block at or behind copyFrom
    bool keepBackup = false;  // keep the old file under its name and ".backup"
    // Called when the copy is complete and on the disk, right before it takes the file's place. If
    // it fails, the squeeze is given up with its result. May be null.
    u32 (*beforeReplace)(void* ctx) = nullptr;
    void* ctx = nullptr;  // handed to beforeReplace, never looked at
};

// Lives as long as one squeeze, under the storage's lock.
class Squeeze {
  public:
    // The arguments outlive this object.
    // Throws std::bad_alloc.
    // REQUIRES: the file is open for writing; request.commitOffset is the offset of a commit block.
    Squeeze(StorageFile& file, FileClear& clear, const SqueezeRequest& request);

    // See CSolidStorage::Squeeze. To be called once.
    // May throw std::bad_alloc.
    [[nodiscard]] ResultCode Run(i64* shift);

  private:
    // Everything between recording the clear revision in the old file and opening the new one.
    [[nodiscard]] ResultCode CopyAndReplace();
    // Puts the old file on the disk; *header receives its header, *commitBlock the one at
    // commitOffset.
    // Errors, logged: RC_SYSTEM_ERROR; RC_BAD_DATA when no commit block lies there.
    [[nodiscard]] ResultCode FlushAndReadStart(TFileHeader* header, TCommitBlock* commitBlock);
    // RC_SYSTEM_ERROR, logged, when another writer has the older backup, which would be replaced.
    [[nodiscard]] ResultCode CheckOldBackup();
    [[nodiscard]] ResultCode FillTemporary(TemporaryFile& temporary, const TFileHeader& header,
                                           const TCommitBlock& first);
    // Copies the items from copyFrom to the write position, and flushes them to the disk.
    [[nodiscard]] ResultCode CopyKept(platform::File& temporary);
    // Copies the next `size` bytes through `buffer`.
    [[nodiscard]] ResultCode CopyPiece(platform::File& temporary, u8* buffer, u32 size);
    // Closes the old file and changes the names. *renamed receives whether the new file has the
    // name.
    [[nodiscard]] ResultCode Replace(TemporaryFile& temporary, bool* renamed);
    // Takes the commit block that the squeeze recorded off the end of the old file.
    [[nodiscard]] ResultCode CutOldFile();

    StorageFile& m_file;
    FileClear& m_clear;
    const SqueezeRequest& m_request;
    const SqueezeNames m_names;  // made ahead, so nothing fails for them half-way
    // Bytes of the old file up to its write position, before the clear revision was recorded; 0
    // before Run.
    i64 m_oldDataSize = 0;
    // Bytes of kept items that are in the temporary file.
    i64 m_written = 0;
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_SQUEEZE_H
