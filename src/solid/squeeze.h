// The squeeze: what is kept of the storage file moves to a new file, which takes the old one's
// place. Everything is on the disk before a name changes. The storage file makes one for each
// squeeze that a clear asks for.
#ifndef K9EREPL_SOLID_SQUEEZE_H
#define K9EREPL_SOLID_SQUEEZE_H

#include <string>

#include "format/storage_file_format.h"
#include "platform/file.h"
#include "platform/int_types.h"
#include "solid/file_clear.h"
#include "solid/file_replace.h"
#include "solid/storage_file.h"

namespace k9erepl {

// What a squeeze keeps of the file, and what else it shall do.
struct SqueezeRequest {
    i64 clearRev = 0;         // becomes the file's clear revision
    i64 copyFrom = 0;         // offset of the first item that is kept
    i64 commitOffset = 0;     // of the first commit block at or behind it
    bool keepBackup = false;  // keep the old file under its name and ".backup"
    // Called when the copy is complete and on the disk, right before it takes the file's place.
    // Its failure gives the squeeze up and becomes its result. May be null.
    u32 (*beforeReplace)(void* ctx) = nullptr;
    void* ctx = nullptr;
};

class Squeeze {
  public:
    // `request` outlives this object. Throws std::bad_alloc.
    // REQUIRES: the file is open for writing; request.commitOffset is the offset of a commit block.
    Squeeze(StorageFile& file, FileClear& clear, const SqueezeRequest& request);

    // As CSolidStorage::Squeeze; once. May throw std::bad_alloc.
    [[nodiscard]] u32 Run(i64* shift);

  private:
    [[nodiscard]] u32 CopyAndReplace();
    [[nodiscard]] u32 FlushAndReadStart(TFileHeader* header, TCommitBlock* commitBlock);
    [[nodiscard]] u32 CheckOldBackup();
    [[nodiscard]] u32 FillTemporary(TemporaryFile& temporary, const TFileHeader& header,
                                    const TCommitBlock& first);
    [[nodiscard]] u32 CopyKept(platform::File& temporary);
    [[nodiscard]] u32 CopyPiece(platform::File& temporary, u8* buffer, u32 size);
    [[nodiscard]] u32 Replace(TemporaryFile& temporary, bool* renamed);
    [[nodiscard]] u32 CutOldFile();

    StorageFile& m_file;
    FileClear& m_clear;
    const SqueezeRequest& m_request;
    const SqueezeNames m_names;
    i64 m_oldDataSize = 0;  // bytes up to the write position before the clear revision was recorded
    i64 m_written = 0;      // bytes of kept items that are in the temporary file
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_SQUEEZE_H
