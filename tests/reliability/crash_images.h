// The images that a crash leaves of a recorded run: the moments at which a process is killed, and
// what a power cut takes back of changes that were not flushed.
#ifndef K9EREPL_TESTS_RELIABILITY_CRASH_IMAGES_H
#define K9EREPL_TESTS_RELIABILITY_CRASH_IMAGES_H

#include <map>
#include <memory>
#include <vector>

#include "model/numbers.h"
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

// How the pages of a file come out.
enum class PageFate : u8 {
    kNothingSurvives,
    kEverythingSurvives,
    kOldOrNew,    // each page as it was flushed last, or as it was written last
    kAnyVersion,  // each page as it was at any moment
    kOneIsLost,
    kOneSurvives,
};
inline constexpr u32 kPageFates = 6;

// Follows a run.
class PowerCut {
  public:
    // Everything in `base` is durable.
    explicit PowerCut(const DiskImage& base);
    void Do(const Change& change);
    // The power goes now.
    DiskImage Leave(PageFate fate, model::Random& random) const;

  private:
    using Versions = std::vector<std::shared_ptr<FileBytes>>;

    Names LeaveNames(PageFate fate, model::Random& random) const;

    DiskImage m_now;
    std::map<FileNumber, Versions> m_versions;  // the first is durable, the last is the present one
    Names m_durableNames;
    Changes m_nameChanges;  // since the directory was flushed
};

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_CRASH_IMAGES_H
