// Openings, the comparison with the slow reader, the tables of fields; see the header.
#include "reliability/hostile_opening.h"

#include <algorithm>
#include <cassert>
#include <span>

#include "model/storage_client.h"
#include "reliability/steady_calls.h"

namespace k9erepl::reliability {

namespace {

constexpr u32 kFirstStamp = 0x40000000;  // none that a history uses
constexpr i64 kHighestAssigned = model::kHighestRev - 1;
constexpr std::size_t kZerosMost = 300;  // of those that a file is sized ahead with

std::string Results(const Opening& opening) {
    return "opening answers " + std::to_string(opening.openResult) + ", loading " +
           std::to_string(opening.loadResult) + ", reading " + std::to_string(opening.readResult) +
           ", " + Describe(opening.seen);
}

SlowScan ScanOf(const HostileCase& hostile, std::size_t start = 0) {
    return ScanSlowly(hostile.files.storage, start,
                      hostile.InMemory() ? SlowLoad::kIntoMemory : SlowLoad::kForWriting);
}

Seen ShownBy(const HostileCase& hostile, const SlowScan& scan) {
    return reliability::ShownBy(hostile.files.storage, scan, hostile.InMemory());
}

class Judgement {
  public:
    Judgement(const HostileCase& hostile, const Opening& opening)
        : m_hostile(hostile), m_opening(opening) {}

    Problem Run(Fate* fate) const {
        const SlowScan scan = ScanOf(m_hostile);
        if (m_opening.IsLoaded() && !m_opening.rises) {
            return "revisions do not rise";
        }
        if (Agrees(scan, fate) || (m_hostile.indexMayPassOver && IsPassedOver(fate))) {
            return "";
        }
        const std::string seen = Results(m_opening) + "; the slow reader ";
        return scan.IsRefused()
                   ? seen + "refuses: " + scan.refusal
                   : seen + "sees " + Describe(ShownBy(m_hostile, scan)) + " and stops at " +
                         std::to_string(scan.stopAt) + ": " + scan.stop;
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
        return m_opening.readResult == RC_OK && m_opening.seen == ShownBy(m_hostile, scan);
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
                const SlowScan scan = ScanOf(m_hostile, static_cast<std::size_t>(entry.offset));
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
        const Seen shown = ShownBy(m_hostile, scan);
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
                : std::string(when) + ": " + Results(opening) + "; expected " + Describe(expected);
}

// Appends, unless there is no revision left.
class GoingOn {
  public:
    GoingOn(const HostileCase& hostile, u64 seed)
        : m_connString(hostile.settings.ConnString(StoragePath())) {
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
                       last.seen == reliability::ShownBy(bytes, ScanSlowly(bytes), false) ||
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
        opening.readResult = ReadRange(client, model::kLowestRev, model::kHighestRev,
                                       &opening.seen.records, &opening.rises);
        ReadMarks(client, &opening.seen);
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

Seen ShownBy(const std::string& bytes, const SlowScan& scan, bool inMemory) {
    return {ServedRecords(bytes, scan), scan.nextRev, scan.clearRev, inMemory ? 0 : scan.lifenum,
            inMemory ? 0 : scan.mark};
}

SoundFiles::SoundFiles(const History& history)
    : files(FilesOf(history.Last())), settings(history.settings), scan(ScanSlowly(files.storage)) {
    settings.initialMebibytes = 0;
    settings.deltaMebibytes = 0;
    files.storage.resize(std::min(files.storage.size(), scan.validEnd + kZerosMost));
}

const char* NameOf(Fate fate) {
    static constexpr const char* kNames[] = {"refused",
                                             "record larger than the blocks",
                                             "as the slow reader",
                                             "damage passed over by the index",
                                             "records hidden by damage that the index passed over",
                                             "damage reported while reading"};
    return kNames[static_cast<std::size_t>(fate)];
}

Problem ExamineHostile(MemoryDisk& disk, const HostileCase& hostile, u64 seed, Fate* fate) {
    SteadyCalls::SetStamp(kFirstStamp);
    disk.Mount(ImageOf(hostile.files));
    const Opening opening = OpenAndRead(hostile.settings.ConnString(StoragePath()));
    if (Problem problem = Judgement(hostile, opening).Run(fate); !problem.empty()) {
        return problem;
    }
    if (!opening.IsLoaded() || hostile.InMemory() || opening.seen.nextRev > kHighestAssigned - 2) {
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

namespace {

constexpr FileField kHeaderFields[] = {{"header: signature", 0, 8},
                                       {"header: version", 8, 4},
                                       {"header: lifenum", 12, 4},
                                       {"header: clearOldRev", 16, 8},
                                       {"header: reserved", 24, 1000}};
constexpr FileField kFirstCommitFields[] = {
    {"first commit block: signature", 0, 4}, {"first commit block: prevSequence", 4, 4},
    {"first commit block: sequence", 8, 4},  {"first commit block: zero", 12, 4},
    {"first commit block: clearRev", 16, 8}, {"first commit block: commitRev", 24, 8}};
constexpr FileField kCommitFields[] = {
    {"commit block: signature", 0, 4}, {"commit block: prevSequence", 4, 4},
    {"commit block: sequence", 8, 4},  {"commit block: zero", 12, 4},
    {"commit block: clearRev", 16, 8}, {"commit block: commitRev", 24, 8}};
constexpr FileField kRecordFields[] = {{"record: signature", 0, 4},
                                       {"record: size", 4, 4},
                                       {"record: rev", 8, 8},
                                       {"record: userWord", 16, 4},
                                       {"record: dataSize", 20, 4}};
constexpr FileField kIndexHeaderFields[] = {
    {"index: magic", 0, 12},      {"index: version", 12, 4},  {"index: count", 16, 4},
    {"index: block size", 20, 4}, {"index: checksum", 24, 4}, {"index: reserved", 28, 4}};
constexpr FileField kEntryFields[] = {{"index entry: revision", 0, 8},
                                      {"index entry: offset", 8, 8}};

class Fields {
  public:
    void Add(std::span<const FileField> fields) {
        const std::size_t base = m_end;
        for (const FileField& field : fields) {
            AddOne(field.name, base + field.at, field.size);
        }
    }
    void AddUpTo(const char* name, std::size_t end) { AddOne(name, m_end, end - m_end); }
    std::vector<FileField> Take() { return std::move(m_fields); }

  private:
    void AddOne(const char* name, std::size_t at, std::size_t size) {
        assert(at == m_end);
        if (size > 0) {
            m_fields.push_back({name, at, size});
        }
        m_end = at + size;
    }

    std::vector<FileField> m_fields;
    std::size_t m_end = 0;
};

}  // namespace

std::vector<FileField> FieldsOfStorage(const std::string& bytes, const SlowScan& scan) {
    Fields fields;
    fields.Add(kHeaderFields);
    for (std::size_t i = 0; i < scan.validItems; ++i) {
        const SlowItem& item = scan.items[i];
        if (item.kind == ItemKind::kRecord) {
            fields.Add(kRecordFields);
            fields.AddUpTo("record: data", item.at + item.size);
        } else if (i == 0) {
            fields.Add(kFirstCommitFields);
        } else {
            fields.Add(kCommitFields);
        }
    }
    fields.AddUpTo("behind the data", bytes.size());
    return fields.Take();
}

std::vector<FileField> FieldsOfIndex(const std::string& bytes) {
    Fields fields;
    fields.Add(kIndexHeaderFields);
    for (std::size_t at = 32; at < bytes.size(); at += 16) {
        fields.Add(kEntryFields);
    }
    return fields.Take();
}

const FileField& FieldAt(const std::vector<FileField>& fields, std::size_t at) {
    const auto behind = std::upper_bound(
        fields.begin(), fields.end(), at,
        [](std::size_t place, const FileField& field) { return place < field.at; });
    return *(behind - 1);
}

}  // namespace k9erepl::reliability
