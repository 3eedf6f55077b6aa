// Where a write is cut; see the header.
#include "reliability/crash_points.h"

#include <algorithm>
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

}  // namespace k9erepl::reliability
