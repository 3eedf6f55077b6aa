// Storage files that reach beyond 2, 4 and 8 GiB, with holes for the data of their records. Used by
// the family of sizes.
#ifndef K9EREPL_TESTS_RELIABILITY_LARGE_IMAGE_H
#define K9EREPL_TESTS_RELIABILITY_LARGE_IMAGE_H

#include <string>

#include "model/content.h"
#include "reliability/disk_image.h"

namespace k9erepl::reliability {

// A record and the commit block behind it: just what the load scan reads at once.
inline constexpr u32 kFillItemSize = 10 * 1024 * 1024;

// Records from revision 1 on, one a transaction, that fill a storage file up to a given byte.
class LargeImage {
  public:
    // REQUIRES: `end` leaves room for several items.
    LargeImage(const std::string& path, i64 end);
    // Puts the index file beside it, which names every record.
    void AddIndex();

    const DiskImage& Image() const { return m_image; }
    i64 LastRev() const { return m_lastRev; }
    // Data is zeros but for the first and the last eight bytes, which are the revision.
    model::Record RecordOf(i64 rev) const;

  private:
    u32 ItemSizeOf(i64 rev) const;
    void WriteItem(FileBytes& file, i64 rev, i64 offset) const;

    const std::string m_path;
    i64 m_lastRev = 0;
    // The last two items are smaller than the others.
    u32 m_lastButOneSize = kFillItemSize;
    u32 m_lastSize = 0;
    DiskImage m_image;
};

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_LARGE_IMAGE_H
