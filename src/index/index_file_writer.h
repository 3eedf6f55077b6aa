// Writes the index file: makes it anew without entries, and brings it up to date with an image. The
// index worker owns one.
#ifndef K9EREPL_INDEX_INDEX_FILE_WRITER_H
#define K9EREPL_INDEX_INDEX_FILE_WRITER_H

#include <string>

#include "index/index_image.h"
#include "platform/file.h"
#include "platform/int_types.h"
#include "support/result.h"

namespace k9erepl {

// Every failure is logged here and answered with RC_SYSTEM_ERROR unless a function says otherwise.
// What the file holds after a failed write is unknown: the caller writes the whole file next. Used
// by one thread at a time, the one that has the turn (index_turn.h).
class IndexFileWriter {
  public:
    // Touches no file: Create opens it.
    explicit IndexFileWriter(std::string path);

    const std::string& Path() const { return m_path; }

    // Makes the directories of the path, creates or empties the file and writes the image's header.
    // On failure the file is closed. Answers RC_INVALID_ARG for a storage file, which stays as it
    // is. REQUIRES: the image was Reset, so it has no entries.
    [[nodiscard]] ResultCode Create(const IndexImage& image);
    // Writes the bytes of the image: the whole file at once, or first the new entries and then the
    // header, so that a crash in between leaves a file whose length or checksum does not fit its
    // header. Fails when the file is not open.
    [[nodiscard]] ResultCode Write(const IndexImage& image);
    // Returns when everything written is on the disk.
    [[nodiscard]] ResultCode FlushToDisk();
    // Does nothing when the file is not open.
    void Close() { m_file.Close(); }

  private:
    [[nodiscard]] ResultCode WriteWhole(const IndexImage& image);
    [[nodiscard]] ResultCode WriteTail(const IndexImage& image);
    // `position` is in bytes from the file's beginning.
    [[nodiscard]] bool WriteAt(i64 position, const u8* data, u32 size);
    // Logs that the writing of `part` ("full", "tail", "header", "flush") failed.
    [[nodiscard]] ResultCode Fail(const char* part) const;

    const std::string m_path;
    platform::File m_file;  // open between Create and Close
};

}  // namespace k9erepl

#endif  // K9EREPL_INDEX_INDEX_FILE_WRITER_H
