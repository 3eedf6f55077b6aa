// Versions of pages; see the header.
#include "reliability/power_cut.h"

#include <algorithm>
#include <array>

namespace k9erepl::reliability {

namespace {

constexpr u32 kPage = 4096;

u32 StoredPages(const std::vector<std::shared_ptr<FileBytes>>& versions) {
    i64 stored = 0;
    for (const auto& version : versions) {
        stored = std::max(stored, version->StoredSize());
    }
    return static_cast<u32>((stored + kPage - 1) / kPage);
}

// Which version of its pages and of its size a file comes out with.
class Draw {
  public:
    Draw(PageFate fate, std::size_t versions, u32 pages, model::Random& random)
        : m_fate(fate),
          m_versions(static_cast<u32>(versions)),
          m_random(random),
          m_theOne(random.Below(pages + 1)) {}

    // The size counts as the page behind the last one.
    u32 VersionOf(u32 page) {
        const u32 last = m_versions - 1;
        switch (m_fate) {
            case PageFate::kNothingSurvives:
                return 0;
            case PageFate::kEverythingSurvives:
                return last;
            case PageFate::kOldOrNew:
                return m_random.OneIn(2) ? 0 : last;
            case PageFate::kAnyVersion:
                return m_random.Below(m_versions);
            case PageFate::kOneIsLost:
                return page == m_theOne ? 0 : last;
            case PageFate::kOneSurvives:
                return page == m_theOne ? last : 0;
        }
        return last;
    }

  private:
    const PageFate m_fate;
    const u32 m_versions;
    model::Random& m_random;
    const u32 m_theOne;
};

std::shared_ptr<FileBytes> Compose(const std::vector<std::shared_ptr<FileBytes>>& versions,
                                   PageFate fate, model::Random& random) {
    if (versions.size() == 1) {
        return versions.front();
    }
    const u32 pages = StoredPages(versions);
    Draw draw(fate, versions.size(), pages, random);
    auto composed = std::make_shared<FileBytes>();
    std::array<char, kPage> page{};
    for (u32 at = 0; at < pages; ++at) {
        page.fill(0);
        const i64 offset = i64{at} * kPage;
        versions[draw.VersionOf(at)]->Read(offset, page.data(), kPage);
        composed->Write(offset, page.data(), kPage);
    }
    composed->SetEnd(versions[draw.VersionOf(pages)]->Size());
    return composed;
}

}  // namespace

PowerCut::PowerCut(const DiskImage& base) : m_now(base), m_durableNames(base.AllNames()) {
    for (const auto& [name, file] : base.AllNames()) {
        m_versions[file] = {base.Share(file)};
    }
}

void PowerCut::Do(const Change& change) {
    m_now.Apply(change);
    Versions& versions = m_versions[change.file];
    if (change.kind == ChangeKind::kFlushDirectory) {
        m_durableNames = m_now.AllNames();
        m_nameChanges.clear();
    } else if (change.kind == ChangeKind::kFlush) {
        versions = {m_now.Share(change.file)};
    } else if (change.ChangesBytes() || change.kind == ChangeKind::kCreate) {
        versions.push_back(m_now.Share(change.file));
    }
    if (change.ChangesNames()) {
        m_nameChanges.push_back(change);
    }
}

Names PowerCut::LeaveNames(PageFate fate, model::Random& random) const {
    Names names = m_durableNames;
    const bool inOrder = random.OneIn(2);
    const u32 kept = random.Below(static_cast<u32>(m_nameChanges.size()) + 1);
    for (u32 at = 0; at < m_nameChanges.size(); ++at) {
        const bool survives =
            fate == PageFate::kEverythingSurvives ||
            (fate != PageFate::kNothingSurvives && (inOrder ? at < kept : random.OneIn(2)));
        if (survives) {
            ApplyToNames(m_nameChanges[at], names);
        }
    }
    return names;
}

DiskImage PowerCut::Leave(PageFate fate, model::Random& random) const {
    DiskImage image;
    for (const auto& [name, file] : LeaveNames(fate, random)) {
        if (!image.Knows(file)) {
            image.PutFile(file, Compose(m_versions.at(file), fate, random));
        }
        image.PutName(name, file);
    }
    return image;
}

}  // namespace k9erepl::reliability
