// Openings, and the comparison with the slow reader; see the header.
#include "reliability/hostile_opening.h"

#include <algorithm>

#include "engine/storage_fixture.h"
#include "model/storage_client.h"
#include "reliability/steady_calls.h"

namespace k9erepl::reliability {

namespace {

constexpr u32 kFirstStamp = 0x40000000;  // none that a history uses
constexpr i64 kHighestAssigned = model::kHighestRev - 1;

void ReadAll(const model::StorageClient& client, Opening* opening) {
    i64 before = model::kLowestRev;
    Seen& seen = opening->seen;
    opening->readResult =
        client.Enumerate(model::kLowestRev, model::kHighestRev, [&](const K9eReplRec& record) {
            opening->rises = opening->rises && record.rev > before;
            before = record.rev;
            const auto* data = reinterpret_cast<const char*>(record.data);
            seen.records[i64{record.rev}] = {record.userWord, std::string(data, record.dataSize)};
            return u32{RC_OK};
        });
    seen.nextRev = client.NextRev();
    auto* storage = static_cast<IK9eReplStorage*>(client.Handle());
    seen.oldestRev = StorageAccess::OldestRev(*static_cast<CK9eReplStorage*>(storage));
    K9eReplStorageGetLifenum(client.Handle(), &seen.lifenum);
    K9eReplStorageGetClearOldRev(client.Handle(), &seen.mark);
}

std::string Results(const Opening& opening) {
    return "opening answers " + std::to_string(opening.openResult) + ", loading " +
           std::to_string(opening.loadResult) + ", reading " + std::to_string(opening.readResult);
}

SlowLoad LoadOf(const model::Settings& settings) {
    return settings.kind == model::SessionKind::kFile ? SlowLoad::kForWriting
                                                      : SlowLoad::kIntoMemory;
}

// What the storage shows when it was loaded so. Read into memory, it leaves the marks in the file.
Seen ShownBy(const std::string& bytes, const SlowScan& scan, const model::Settings& settings) {
    const bool inMemory = settings.kind != model::SessionKind::kFile;
    return {ServedRecords(bytes, scan), scan.nextRev, scan.clearRev, inMemory ? 0 : scan.lifenum,
            inMemory ? 0 : scan.mark};
}

class Judgement {
  public:
    Judgement(const HostileCase& hostile, const Opening& opening)
        : m_hostile(hostile), m_opening(opening) {}

    Problem Run(Fate* fate) const {
        const SlowScan scan = ScanSlowly(m_hostile.files.storage, 0, LoadOf(m_hostile.settings));
        if (m_opening.IsLoaded() && !m_opening.rises) {
            return "revisions do not rise";
        }
        if (Agrees(scan, fate)) {
            return "";
        }
        if (m_hostile.indexMayPassOver && IsPassedOver(fate)) {
            return "";
        }
        if (scan.IsRefused()) {
            return Results(m_opening) + ", " + Describe(m_opening.seen) +
                   "; the slow reader refuses: " + scan.refusal;
        }
        return Results(m_opening) + ", " + Describe(m_opening.seen) + "; the slow reader sees " +
               Describe(ShownBy(m_hostile.files.storage, scan, m_hostile.settings)) +
               " and stops at " + std::to_string(scan.stopAt) + ": " + scan.stop;
    }

  private:
    bool Agrees(const SlowScan& scan, Fate* fate) const {
        if (scan.IsRefused()) {
            *fate = Fate::kRefused;
            return !m_opening.IsLoaded();
        }
        if (!m_opening.IsLoaded()) {
            *fate = Fate::kTooLarge;
            return m_opening.openResult == RC_OK && HasTooLarge(scan.items);
        }
        *fate = Fate::kSame;
        return m_opening.readResult == RC_OK &&
               m_opening.seen == ShownBy(m_hostile.files.storage, scan, m_hostile.settings);
    }

    bool HasTooLarge(const std::vector<SlowItem>& items) const {
        return std::any_of(items.begin(), items.end(), [this](const SlowItem& item) {
            return item.kind == ItemKind::kRecord && item.size > m_hostile.settings.blockSize;
        });
    }

    // The same of what has lost its links.
    bool HasTooLargeLoosely(const SlowIndex& index) const {
        return std::any_of(index.entries.begin(), index.entries.end(), [this](const auto& entry) {
            return HasTooLarge(
                WalkLoosely(m_hostile.files.storage, static_cast<std::size_t>(entry.offset)));
        });
    }

    // Loaded from the offset of an index entry: what lies in front was not checked.
    bool IsPassedOver(Fate* fate) const {
        const SlowIndex index = ReadIndexSlowly(m_hostile.files.index);
        return std::any_of(
            index.entries.begin(), index.entries.end(), [&](const SlowIndexEntry& entry) {
                const SlowScan scan =
                    ScanSlowly(m_hostile.files.storage, static_cast<std::size_t>(entry.offset),
                               LoadOf(m_hostile.settings));
                return !scan.IsRefused() && IsLoadedFrom(scan, index, fate);
            });
    }

    bool IsLoadedFrom(const SlowScan& scan, const SlowIndex& index, Fate* fate) const {
        if (!m_opening.IsLoaded()) {
            // A load that takes blocks out of memory again may meet what was passed over.
            const bool tooLarge = HasTooLarge(scan.items) || HasTooLargeLoosely(index);
            *fate = tooLarge ? Fate::kTooLarge : Fate::kReported;
            return m_opening.openResult == RC_OK &&
                   (tooLarge || m_opening.loadResult == RC_BAD_DATA);
        }
        const Seen shown = ShownBy(m_hostile.files.storage, scan, m_hostile.settings);
        *fate = m_opening.readResult != RC_OK ? Fate::kReported
                : AreAllSeen(shown.records)   ? Fate::kPassedOver
                                              : Fate::kCutShort;
        const bool nothingLeft = m_opening.seen.records.empty() && shown.records.empty();
        return m_opening.seen.nextRev == shown.nextRev &&
               (m_opening.seen.oldestRev == shown.oldestRev || nothingLeft) &&
               Known(index) == m_opening.seen.records;
    }

    bool AreAllSeen(const model::Records& records) const {
        return std::all_of(records.begin(), records.end(), [this](const auto& record) {
            const auto found = m_opening.seen.records.find(record.first);
            return found != m_opening.seen.records.end() && found->second == record.second;
        });
    }

    // What was read, as far as it is in the file in that form behind an entry of the index.
    model::Records Known(const SlowIndex& index) const {
        const std::string& bytes = m_hostile.files.storage;
        model::Records known;
        for (const SlowIndexEntry& entry : index.entries) {
            for (const SlowItem& item :
                 WalkLoosely(bytes, static_cast<std::size_t>(entry.offset))) {
                const auto seen = m_opening.seen.records.find(item.rev);
                if (item.kind == ItemKind::kRecord && seen != m_opening.seen.records.end() &&
                    RecordAt(bytes, item) == seen->second) {
                    known[item.rev] = seen->second;
                }
            }
        }
        return known;
    }

    const HostileCase& m_hostile;
    const Opening& m_opening;
};

Problem Differ(const char* when, const Opening& opening, const Seen& expected) {
    const bool same = opening.IsLoaded() && opening.readResult == RC_OK && opening.rises &&
                      opening.seen == expected;
    return same ? ""
                : std::string(when) + ": " + Results(opening) + ", " + Describe(opening.seen) +
                      "; expected " + Describe(expected);
}

// Appends, unless there is no revision left.
class GoingOn {
  public:
    GoingOn(const HostileCase& hostile, u64 seed)
        : m_settings(hostile.settings), m_connString(m_settings.ConnString(StoragePath())) {
        model::Random random(seed);
        const u32 sizeMax = std::min<u32>(hostile.settings.blockSize - model::kRecordOverhead, 100);
        m_appending = {1 + random.Below(2), random.Below(sizeMax), static_cast<u32>(random.Next())};
    }

    Problem Run(const Seen& first) {
        Seen second;
        Seen expected;
        Problem problem = Visit(m_connString, m_appending, &second, &expected);
        if (!problem.empty()) {
            return "opened again: " + problem;
        }
        if (second != first) {
            return "opened again: " + Describe(second) + "; expected " + Describe(first);
        }
        return Differ("opened after appending", OpenAndRead(m_connString), expected);
    }

    // Where an index leads past damage the next opening may begin at another place and find the
    // damage: what is appended stays, or the whole file is read and ends at the damage, or reading
    // tells it, or the load ends there and keeps what lies behind.
    Problem RunBesideDamage(const MemoryDisk& disk) {
        Seen second;
        Seen expected;
        if (!Visit(m_connString, m_appending, &second, &expected).empty()) {
            return "";
        }
        const Opening last = OpenAndRead(m_connString);
        const i64 appended = expected.nextRev - 1;
        const std::string bytes = FilesOf(disk.Image()).storage;
        return last.seen.records.contains(appended) || last.readResult == RC_BAD_DATA ||
                       last.seen == ShownBy(bytes, ScanSlowly(bytes), m_settings) ||
                       KeepsTail(disk, bytes)
                   ? ""
                   : Differ("opened after appending beside damage", last, expected);
    }

  private:
    // Whether the copy of what lies behind damage is there, up to the end of the file.
    static bool KeepsTail(const MemoryDisk& disk, const std::string& bytes) {
        const FileBytes* tail = disk.Image().Find(StoragePath() + ".damaged-tail");
        return tail != nullptr && bytes.ends_with(tail->Whole());
    }

    const model::Settings m_settings;
    const std::string m_connString;
    Appending m_appending;
};

}  // namespace

Opening OpenAndRead(const std::string& connString) {
    Opening opening;
    model::StorageClient client;
    opening.openResult = client.Open(connString);
    if (opening.openResult == RC_OK) {
        opening.loadResult = K9eReplStorageLoad(client.Handle());
    }
    if (opening.IsLoaded()) {
        ReadAll(client, &opening);
    }
    return opening;
}

std::string IndexPath() {
    return StoragePath() + "-idx";
}

HostileFiles FilesOf(const DiskImage& image) {
    const FileBytes* index = image.Find(IndexPath());
    return {image.Find(StoragePath())->Whole(), index != nullptr ? index->Whole() : ""};
}

DiskImage ImageOf(const HostileFiles& files) {
    DiskImage image;
    const auto put = [&image](const std::string& name, const std::string& bytes) {
        FileBytes file;
        file.Write(0, bytes.data(), static_cast<u32>(bytes.size()));
        image.Put(name, std::move(file));
    };
    put(StoragePath(), files.storage);
    if (!files.index.empty()) {
        put(IndexPath(), files.index);
    }
    return image;
}

const char* NameOf(Fate fate) {
    switch (fate) {
        case Fate::kRefused:
            return "refused";
        case Fate::kTooLarge:
            return "record larger than the blocks";
        case Fate::kSame:
            return "as the slow reader";
        case Fate::kPassedOver:
            return "damage passed over by the index";
        case Fate::kCutShort:
            return "records hidden by damage that the index passed over";
        case Fate::kReported:
            return "damage reported while reading";
    }
    return "";
}

Problem ExamineHostile(MemoryDisk& disk, const HostileCase& hostile, u64 seed, Fate* fate) {
    SteadyCalls::SetStamp(kFirstStamp);
    disk.Mount(ImageOf(hostile.files));
    const Opening opening = OpenAndRead(hostile.settings.ConnString(StoragePath()));
    if (Problem problem = Judgement(hostile, opening).Run(fate); !problem.empty()) {
        return problem;
    }
    if (!opening.IsLoaded() || hostile.settings.kind != model::SessionKind::kFile ||
        opening.seen.nextRev > kHighestAssigned - 2) {
        return "";
    }
    GoingOn goingOn(hostile, seed);
    return *fate == Fate::kSame ? goingOn.Run(opening.seen) : goingOn.RunBesideDamage(disk);
}

Problem ExamineHostile(GroupRun& run, MemoryDisk& disk, const HostileCase& hostile, u64 seed,
                       const std::string& change) {
    run.Keep(ImageOf(hostile.files), {}, 0);
    Fate fate = Fate::kSame;
    const Problem problem = ExamineHostile(disk, hostile, seed, &fate);
    run.Count(NameOf(fate));
    return problem.empty()
               ? ""
               : change + "; " + hostile.settings.ConnString(StoragePath()) + ": " + problem;
}

}  // namespace k9erepl::reliability
