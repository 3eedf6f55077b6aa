// What a power cut may leave: of what was written to a file since its last flush, each page of
// 4 KiB, and the file's size, as it was at any moment in between; of the names that changed since
// the directory's last flush, any part.
#ifndef K9EREPL_TESTS_RELIABILITY_POWER_CUT_H
#define K9EREPL_TESTS_RELIABILITY_POWER_CUT_H

#include <map>
#include <memory>
#include <vector>

#include "model/numbers.h"
#include "reliability/disk_image.h"

namespace k9erepl::reliability {

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

#endif  // K9EREPL_TESTS_RELIABILITY_POWER_CUT_H
