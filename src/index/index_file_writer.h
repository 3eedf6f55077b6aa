// Writes the index file: makes it anew without entries, and brings it up to an image. The index
// worker owns one.
#ifndef K9EREPL_INDEX_INDEX_FILE_WRITER_H
#define K9EREPL_INDEX_INDEX_FILE_WRITER_H

#include <string>

#include "index/index_image.h"
#include "platform/file.h"
#include "platform/int_types.h"

namespace k9erepl {

// Failures are logged and answered with RC_SYSTEM_ERROR. One thread at a time.
class IndexFileWriter {
  public:
    explicit IndexFileWriter(std::string path);

    const std::string& Path() const { return m_path; }

    // Makes the directories on the way, empties or makes the file and writes the image's header.
    // On failure the file is closed; RC_INVALID_ARG for a storage file, which stays. REQUIRES: the
    // image was Reset.
    u32 Create(const IndexImage& image);
    // Writes what the image says, entries first, so that a crash in between leaves a file whose
    // length or checksum does not fit its header. Fails when the file is not open.
    u32 Write(const IndexImage& image);
    // Returns when what was written is on the disk.
    u32 FlushToDisk();
    void Close() { m_file.Close(); }

  private:
    u32 WriteWhole(const IndexImage& image);
    u32 WriteTail(const IndexImage& image);
    bool WriteAt(i64 position, const u8* data, u32 size);
    u32 Fail(const char* part) const;

    const std::string m_path;
    platform::File m_file;
};

}  // namespace k9erepl

#endif  // K9EREPL_INDEX_INDEX_FILE_WRITER_H
