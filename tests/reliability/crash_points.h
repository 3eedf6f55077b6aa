// The moments at which a crash is tried in a recorded run, and the images that it leaves there.
#ifndef K9EREPL_TESTS_RELIABILITY_CRASH_POINTS_H
#define K9EREPL_TESTS_RELIABILITY_CRASH_POINTS_H

#include <vector>

#include "reliability/disk_image.h"

namespace k9erepl::reliability {

// The first `changes` changes were made, and the first `cut` bytes of the next one, a write.
struct CrashPoint {
    std::size_t changes = 0;
    u32 cut = 0;
};

// In order: every number of changes, and writes cut at every byte (large ones at their ends, at the
// borders of fields and here and there), as many, chosen by `seed`, as keep the whole below `max`.
// Bytes of a storage file that are overwritten in place, its first 1064, are cut at borders of
// sectors only: a sector is assumed to be written as a whole.
std::vector<CrashPoint> CrashPointsOf(const Changes& changes, std::size_t max, u64 seed);

// Goes forward through a run.
class ImageMaker {
  public:
    ImageMaker(DiskImage base, const Changes& changes)
        : m_image(std::move(base)), m_changes(changes) {}
    // REQUIRES: not before the point of the last call.
    DiskImage At(const CrashPoint& point);

  private:
    DiskImage m_image;
    const Changes& m_changes;
    std::size_t m_done = 0;
};

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_CRASH_POINTS_H
