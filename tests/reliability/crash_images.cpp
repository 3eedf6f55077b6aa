// Where a write is cut, and versions of pages; see the header.
#include "reliability/crash_images.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstring>
#include <set>
#include <tuple>

#include "format/storage_file_format.h"
#include "model/numbers.h"

namespace k9erepl::reliability {

namespace {

constexpr u32 kEveryByteMax = 192;  // a longer write is cut at a part of its bytes
constexpr u32 kEnd = 64;            // every byte of its first and last ones
constexpr u32 kAnywhere = 64;
constexpr i64 kSector = 512;

void AddBorders(const std::string& bytes, std::set<u32>& cuts) {
    for (std::size_t at = 0; at + sizeof(u32) <= bytes.size(); ++at) {
        u32 word = 0;
        std::memcpy(&word, bytes.data() + at, sizeof word);
        if (word != kRecordSignature && word != kCommitSignature) {
            continue;
        }
        for (const std::size_t border : {0U, 4U, 8U, 12U, 16U, 20U, 24U, 32U}) {
            cuts.insert(static_cast<u32>(at + border));
        }
    }
}

std::set<u32> CutsOf(const Change& write, bool isStorage, model::Random& random) {
    const auto size = static_cast<u32>(write.bytes.size());
    std::set<u32> cuts;
    for (u32 cut = 1; cut < size; ++cut) {
        if (size <= kEveryByteMax || cut <= kEnd || cut >= size - kEnd) {
            cuts.insert(cut);
        }
    }
    if (size > kEveryByteMax) {
        AddBorders(write.bytes, cuts);
        for (i64 end = (write.at / kSector + 1) * kSector; end < write.at + size; end += kSector) {
            cuts.insert(static_cast<u32>(end - write.at));
        }
        for (u32 i = 0; i < kAnywhere; ++i) {
            cuts.insert(random.Below(size));
        }
    }
    std::erase_if(cuts, [&](u32 cut) {
        const i64 end = write.at + cut;
        return cut == 0 || cut >= size || (isStorage && end < kNewFileSize && end % kSector != 0);
    });
    return cuts;
}

std::set<FileNumber> IndexFiles(const Changes& changes) {
    std::set<FileNumber> files;
    for (const Change& change : changes) {
        if (change.kind == ChangeKind::kCreate && change.name.ends_with("-idx")) {
            files.insert(change.file);
        }
    }
    return files;
}

}  // namespace

std::vector<CrashPoint> CrashPointsOf(const Changes& changes, std::size_t max, u64 seed) {
    model::Random random(seed);
    const std::set<FileNumber> index = IndexFiles(changes);
    std::vector<CrashPoint> points;
    std::vector<std::size_t> writes;
    for (std::size_t at = 0; at <= changes.size(); ++at) {
        points.push_back({at, 0});
        if (at < changes.size() && changes[at].kind == ChangeKind::kWrite) {
            writes.push_back(at);
        }
    }
    while (!writes.empty() && points.size() < max) {
        std::swap(writes[random.Below(static_cast<u32>(writes.size()))], writes.back());
        const std::size_t at = writes.back();
        writes.pop_back();
        for (const u32 cut : CutsOf(changes[at], !index.contains(changes[at].file), random)) {
            points.push_back({at, cut});
        }
    }
    std::sort(points.begin(), points.end(), [](const CrashPoint& a, const CrashPoint& b) {
        return std::tie(a.changes, a.cut) < std::tie(b.changes, b.cut);
    });
    return points;
}

DiskImage ImageMaker::At(const CrashPoint& point) {
    assert(point.changes >= m_done);
    for (; m_done < point.changes; ++m_done) {
        m_image.Apply(m_changes[m_done]);
    }
    DiskImage image = m_image;
    if (point.cut > 0) {
        image.ApplyCut(m_changes[point.changes], point.cut);
    }
    return image;
}

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
