// The row of changed fields: storage and index files in which single fields, items or stretches of
// bytes are not what they were, opened under every kind of settings.
#include "reliability/file_fields.h"
#include "reliability/file_mutations.h"
#include "reliability/hostile_opening.h"
#include "reliability/row.h"
#include "reliability/steady_calls.h"
#include "reliability/workload.h"

namespace k9erepl::reliability {

namespace {

constexpr u32 kCasesOfAGroup = 200;
constexpr std::size_t kZerosMost = 300;  // of those that a file is sized ahead with

// A storage that was closed in good order, and what it is made of.
struct Base {
    HostileFiles files;
    model::Settings settings;
    SlowScan scan;
    std::vector<FileField> storageFields;
    std::vector<FileField> indexFields;
};

Base MakeBase(const History& history) {
    Base base;
    DiskImage image = history.base;
    for (const Change& change : history.changes) {
        image.Apply(change);
    }
    base.files = FilesOf(image);
    base.settings = history.settings;
    base.settings.initialMebibytes = 0;
    base.settings.deltaMebibytes = 0;
    base.scan = ScanSlowly(base.files.storage);
    if (base.files.storage.size() > base.scan.validEnd + kZerosMost) {
        base.files.storage.resize(base.scan.validEnd + kZerosMost);
    }
    base.storageFields = FieldsOfStorage(base.files.storage, base.scan);
    base.indexFields = FieldsOfIndex(base.files.index);
    return base;
}

// Larger blocks than those of the base, or the same; any cache.
void ChooseSettings(model::Settings& settings, model::Random& random) {
    settings.blockSize = random.OneOf<u32>({settings.blockSize, settings.blockSize, 5000, 65536});
    settings.cacheBlocks = random.OneOf<u32>({0, 1, 2, 7});
    if (random.OneIn(8)) {
        settings.kind = model::SessionKind::kMemoryFromFile;
        settings.flushBy = model::FlushBy::kNever;
        settings.cacheBlocks = 0;
    }
}

std::string ChangeStorage(HostileCase& hostile, const Base& base, model::Random& random) {
    std::string& bytes = hostile.files.storage;
    std::string text = random.OneIn(4) ? MutateItems(bytes, base.scan, random)
                                       : Mutate(bytes, base.storageFields, random);
    for (u32 more = random.OneOf<u32>({0, 0, 1, 2}); more > 0; --more) {
        text += ", " + Mutate(bytes, base.storageFields, random);
    }
    hostile.indexMayPassOver = random.OneIn(2);
    if (!hostile.indexMayPassOver) {
        hostile.files.index.clear();
    }
    return text;
}

std::string ChangeIndex(HostileCase& hostile, const Base& base, model::Random& random) {
    std::string text = Mutate(hostile.files.index, base.indexFields, random);
    if (random.OneIn(2)) {
        MendChecksum(hostile.files.index);
        text += ", checksum mended";
    }
    return text;
}

Problem RunCase(GroupRun& run, MemoryDisk& disk, const Base& base, u64 number) {
    model::Random random(Mix(run.Seed(), number));
    HostileCase hostile{base.files, base.settings, false};
    ChooseSettings(hostile.settings, random);
    const bool changesIndex = !base.files.index.empty() && random.OneIn(5);
    const std::string text =
        changesIndex ? ChangeIndex(hostile, base, random) : ChangeStorage(hostile, base, random);
    return ExamineHostile(run, disk, hostile, random.Next(), text);
}

void RunGroup(GroupRun& run) {
    const SteadyCalls steady;
    MemoryDisk disk;
    const WorkloadPlan plan{.operations = 25, .async = run.Number() % 2 == 1, .moreSettings = ""};
    const History history = MakeHistory(disk, plan, run.Seed());
    run.Case(0, [&] { return history.problem; });
    const Base base = MakeBase(history);
    for (u64 number = 1; number <= kCasesOfAGroup; ++number) {
        run.Case(number, [&] { return RunCase(run, disk, base, number); });
    }
}

const RegisteredRow kRow({.name = "field-mutations",
                          .title = "field mutations of storage and index files",
                          .cases = 50000,
                          .runGroup = &RunGroup});

}  // namespace

}  // namespace k9erepl::reliability
