// The family of index files that lie: entries that lead elsewhere, indexes of other storages, older
// and newer ones, all with a checksum that fits. An index may change speed only: what is opened
// with it shows what is opened without it.
#include <algorithm>

#include "model/numbers.h"
#include "reliability/family.h"
#include "reliability/hostile_opening.h"
#include "reliability/steady_calls.h"
#include "reliability/workload.h"

namespace k9erepl::reliability {

namespace {

using Entries = std::vector<SlowIndexEntry>;

constexpr u32 kCasesOfAGroup = 50;

// With every index file that the storage had in its life.
struct Base : SoundFiles {
    explicit Base(const History& history) : SoundFiles(history) {
        DiskImage image = history.base;
        for (const Change& change : history.changes) {
            image.Apply(change);
            const FileBytes* index = image.Find(IndexPath());
            if (index != nullptr && image.NumberOf(IndexPath()) == change.file &&
                !ReadIndexSlowly(index->Whole()).entries.empty()) {
                indexes.push_back(index->Whole());
            }
        }
    }

    std::vector<std::string> indexes;
};

History HistoryOf(MemoryDisk& disk, u64 seed) {
    model::Random random(seed);
    const WorkloadPlan plan{
        .operations = 40, .blockSize = random.OneOf<u32>({138, 200, 400}), .moreSettings = ""};
    return MakeHistory(disk, plan, seed);
}

// Every record of the file, served or not, as an index entry.
Entries EntriesOfRecords(const SlowScan& scan) {
    Entries entries;
    for (const SlowItem& item : scan.items) {
        if (item.kind == ItemKind::kRecord) {
            entries.push_back({item.rev, static_cast<i64>(item.at)});
        }
    }
    return entries;
}

class Liar {
  public:
    Liar(const Base& base, const Base& other, u64 seed)
        : m_base(base), m_other(other), m_random(seed) {}

    // An index file for the base; *text tells what is wrong with it.
    std::string Lie(std::string* text) {
        const SlowIndex index = ReadIndexSlowly(m_base.files.index);
        Entries entries = index.entries;
        u32 blockSize = m_random.OneIn(4)
                            ? m_random.OneOf<u32>({0, 1, 138, 65536, 0x7FFFFFFF, 0xFFFFFFFF})
                            : index.blockSize;
        switch (m_random.Below(6)) {
            case 0:
                *text = "an index of another moment";
                return m_base.indexes.empty() ? "" : m_random.AnyOf(m_base.indexes);
            case 1:
                *text = "an index of another storage";
                return m_other.indexes.empty() ? "" : m_random.AnyOf(m_other.indexes);
            case 2:
                *text = "true places of some records";
                entries = Some(EntriesOfRecords(m_base.scan));
                break;
            case 3:
                *text = "some entries left out";
                entries = Some(entries);
                break;
            case 4:
                *text = "true places of some records, one changed";
                entries = Some(EntriesOfRecords(m_base.scan));
                Change(entries);
                break;
            default:
                *text = "an entry changed";
                Change(entries);
                break;
        }
        *text += ", " + std::to_string(entries.size()) + " entries, block size " +
                 std::to_string(blockSize);
        return IndexBytes(entries, blockSize);
    }

  private:
    Entries Some(const Entries& all) {
        const u32 oneIn = m_random.OneOf<u32>({1, 2, 5, 20});
        Entries some;
        std::copy_if(all.begin(), all.end(), std::back_inserter(some),
                     [&](const SlowIndexEntry&) { return m_random.OneIn(oneIn) || oneIn == 1; });
        // The first, the last or both away, as a wrong cut would do it.
        const std::size_t away = m_random.Below(4);
        some.erase(some.begin(),
                   some.begin() + static_cast<std::ptrdiff_t>(std::min(away, some.size())));
        some.resize(some.size() - std::min<std::size_t>(m_random.Below(3), some.size()));
        return some;
    }

    void Change(Entries& entries) {
        if (entries.empty()) {
            return;
        }
        const std::size_t at = m_random.Below(static_cast<u32>(entries.size()));
        SlowIndexEntry& entry = entries[at];
        const i64 step = m_random.OneOf<i64>({1, -1, 24, -24, 32, -32, 100, -100});
        switch (m_random.Below(6)) {
            case 0:
                entry.offset += step;
                break;
            case 1:
                entry.rev += step;
                break;
            case 2:
                std::for_each(entries.begin() + static_cast<std::ptrdiff_t>(at), entries.end(),
                              [step](SlowIndexEntry& each) { each.offset += step; });
                break;
            case 3:
                std::swap(entry, entries[m_random.Below(static_cast<u32>(entries.size()))]);
                break;
            case 4:
                entry.offset = m_random.OneOf<i64>(
                    {0, 1024, 1055, 1056, 0x7FFFFFFF, -1, model::kHighestRev, model::kLowestRev});
                break;
            default:
                entry.rev = m_random.OneOf<i64>({0, 1, -1, model::kHighestRev, model::kLowestRev});
                break;
        }
    }

    const Base& m_base;
    const Base& m_other;
    model::Random m_random;
};

Problem RunCase(GroupRun& run, MemoryDisk& disk, const Base& base, const Base& other, u64 number) {
    const u64 seed = Mix(run.Seed(), number);
    model::Random random(seed);
    HostileCase hostile{base.files, base.settings, false};
    hostile.settings.cacheBlocks = random.OneOf<u32>({0, 1, 2, 7});
    hostile.settings.blockSize =
        random.OneOf<u32>({base.settings.blockSize, base.settings.blockSize, 1000, 4096});
    std::string text;
    hostile.files.index = Liar(base, other, random.Next()).Lie(&text);
    run.Count(ReadIndexSlowly(hostile.files.index).refusal.empty() ? "valid by themselves"
                                                                   : "against the format");
    return ExamineHostile(run, disk, hostile, random.Next(), text);
}

void RunGroup(GroupRun& run) {
    const SteadyCalls steady;
    MemoryDisk disk;
    const History history = HistoryOf(disk, run.Seed());
    const History otherHistory = HistoryOf(disk, Mix(run.Seed(), 1));
    run.Case(0, [&] { return history.problem + otherHistory.problem; });
    const Base base(history);
    const Base other(otherHistory);
    for (u64 number = 1; number <= kCasesOfAGroup; ++number) {
        run.Case(number, [&] { return RunCase(run, disk, base, other, number); });
    }
}

const RegisteredFamily kFamily(
    {.name = "lying-index", .title = "an index that lies", .cases = 2000, .runGroup = &RunGroup});

}  // namespace

}  // namespace k9erepl::reliability
