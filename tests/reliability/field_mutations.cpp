// The family of changed fields: storage and index files in which single fields, items or stretches
// of bytes are not what they were, opened under every kind of settings.
#include <algorithm>
#include <array>

#include "model/numbers.h"
#include "reliability/family.h"
#include "reliability/hostile_opening.h"
#include "reliability/steady_calls.h"
#include "reliability/workload.h"

namespace k9erepl::reliability {

namespace {

// --- The changes. One that finds no place left, because an earlier one cut the file, does nothing.

using model::Random;

constexpr i64 kLowest = model::kLowestRev;
constexpr i64 kHighest = model::kHighestRev;

bool Lies(const std::string& bytes, const FileField& field) {
    return field.at + field.size <= bytes.size();
}

std::string Text(const char* what, const FileField& field) {
    return std::string(what) + " " + field.name + " at " + std::to_string(field.at);
}

i64 BoundaryValue(const std::string& bytes, Random& random) {
    const auto size = static_cast<i64>(bytes.size());
    return random.AnyOf(std::array<i64, 25>{
        0,           1,        2,        -1,       23,         24,         25,           32,
        1023,        1024,     1056,     1064,     0x7FFFFFFF, 0x80000000, 0xFFFFFFFF,   0xFFFFFFE8,
        0x100000000, 10485759, 10485760, 10485761, kLowest,    kHighest,   kHighest - 1, size,
        size - 1});
}

std::string SetNumber(std::string& bytes, const FileField& field, Random& random) {
    const i64 old = NumberAt(bytes, field.at, field.size);
    i64 number = BoundaryValue(bytes, random);
    switch (random.Below(5)) {
        case 0:
            number = model::AddHeld(old, random.OneOf<i64>({1, -1, 24, -24, 32, -32, 256}));
            break;
        case 1:
            number = old ^ static_cast<i64>(u64{1} << (8 * field.size - 1));
            break;
        case 2:
            number = static_cast<i64>(random.Next());
            break;
        default:
            break;
    }
    SetNumberAt(bytes, field.at, field.size, number);
    return Text("set", field) + " to " + std::to_string(NumberAt(bytes, field.at, field.size));
}

// The places of one field become those of another one of its size, or both are exchanged.
std::string Exchange(std::string& bytes, const FileField& field,
                     const std::vector<FileField>& fields, Random& random) {
    const FileField other = random.AnyOf(fields);
    if (other.size != field.size || !Lies(bytes, other)) {
        return SetNumber(bytes, field, random);
    }
    const std::string mine = bytes.substr(field.at, field.size);
    bytes.replace(field.at, field.size, bytes, other.at, other.size);
    if (random.OneIn(2)) {
        bytes.replace(other.at, other.size, mine);
        return Text("exchange", field) + Text(" and", other);
    }
    return Text("copy over", field) + Text(" that", other);
}

std::string ChangeField(std::string& bytes, const std::vector<FileField>& fields, Random& random) {
    FileField field;
    for (u32 tries = 0; tries < 50 && !(field.IsNumber() && Lies(bytes, field)); ++tries) {
        field = random.AnyOf(fields);
    }
    if (!field.IsNumber() || !Lies(bytes, field)) {
        return "nothing";
    }
    return random.OneIn(4) ? Exchange(bytes, field, fields, random)
                           : SetNumber(bytes, field, random);
}

// Somewhere: mostly at a field's border, and mostly not in the long header.
std::size_t AnyPlace(const std::string& bytes, const std::vector<FileField>& fields,
                     Random& random) {
    const std::size_t place =
        random.OneIn(4) ? random.Below(static_cast<u32>(bytes.size() + 1))
                        : random.AnyOf(fields).at + random.OneOf<std::size_t>({0, 0, 0, 1, 3});
    return std::min(place, bytes.size());
}

std::string Resize(std::string& bytes, const std::vector<FileField>& fields, Random& random) {
    if (random.OneIn(4)) {
        bytes.append(random.OneOf<std::size_t>({1, 3, 4, 24, 32, 500}), '\0');
        return "append zeros up to " + std::to_string(bytes.size());
    }
    bytes.resize(AnyPlace(bytes, fields, random));
    return "cut to " + std::to_string(bytes.size());
}

std::string Overwrite(std::string& bytes, const std::vector<FileField>& fields, Random& random) {
    const std::size_t at = AnyPlace(bytes, fields, random);
    const std::size_t size = std::min(
        bytes.size() - at, random.OneOf<std::size_t>({1, 2, 4, 8, 16, 24, 32, 64, 512, 4096}));
    const bool zeros = random.OneIn(2);
    for (std::size_t i = at; i < at + size; ++i) {
        bytes[i] = zeros ? '\0' : static_cast<char>(random.Next());
    }
    return std::string(zeros ? "zero " : "random ") + std::to_string(size) + " bytes at " +
           std::to_string(at);
}

std::string CopyStretch(std::string& bytes, const std::vector<FileField>& fields, Random& random) {
    const std::size_t from = AnyPlace(bytes, fields, random);
    const std::size_t to = AnyPlace(bytes, fields, random);
    const std::string stretch = bytes.substr(from, random.Below(200));
    const bool insert = random.OneIn(2);
    bytes.replace(to, insert ? 0 : stretch.size(), stretch);
    return std::string(insert ? "insert " : "copy ") + std::to_string(stretch.size()) +
           " bytes from " + std::to_string(from) + " at " + std::to_string(to);
}

const SlowItem& AnyItem(const SlowScan& scan, Random& random) {
    return scan.items[random.Below(static_cast<u32>(scan.validItems))];
}

// Both sizes of a record, so that they agree.
std::string ChangeBothSizes(std::string& bytes, const SlowItem& record, Random& random) {
    const i64 room = static_cast<i64>(bytes.size() - record.at - kHeadSize);
    const i64 size = NumberAt(bytes, record.at + 20, 4);
    const i64 other = random.OneOf<i64>(
        {0, 1, size + 1, size - 1, size + 24, size + 32, size - 24, room, room + 1, room - 4,
         10485736, 10485737, 0x7FFFFFFF - 24, 0xFFFFFFFFLL - 24, 0xFFFFFFFFLL, 0xFFFFFFE8LL});
    SetNumberAt(bytes, record.at + 20, 4, other);
    SetNumberAt(bytes, record.at + 4, 4, other + i64{kHeadSize});
    return "set both sizes of the record at " + std::to_string(record.at) + " for " +
           std::to_string(other) + " bytes";
}

// Both revisions of a commit block.
std::string ChangeBothRevs(std::string& bytes, const SlowItem& block, Random& random) {
    const i64 clearRev = random.OneOf<i64>({0, block.rev, block.rev + 1, block.rev - 1, -1,
                                            kHighest, kHighest - 1, kLowest, block.rev / 2});
    const i64 commitRev = random.OneOf<i64>({clearRev, block.rev, block.rev + 1, kHighest});
    SetNumberAt(bytes, block.at + 16, 8, clearRev);
    SetNumberAt(bytes, block.at + 24, 8, commitRev);
    return "set the revisions of the commit block at " + std::to_string(block.at) + " to " +
           std::to_string(clearRev) + " and " + std::to_string(commitRev);
}

std::string MoveItem(std::string& bytes, const SlowScan& scan, Random& random) {
    const SlowItem& item = AnyItem(scan, random);
    const SlowItem& other = AnyItem(scan, random);
    const std::string copy = bytes.substr(item.at, item.size);
    const std::string text = " the item at " + std::to_string(item.at);
    switch (random.Below(3)) {
        case 0:
            bytes.insert(other.at, copy);
            return "double" + text + " at " + std::to_string(other.at);
        case 1:
            bytes.erase(item.at, item.size);
            return "take out" + text;
        default:
            bytes.replace(other.at, other.size, copy);
            return "put" + text + " over that at " + std::to_string(other.at);
    }
}

// Changes `bytes`, whose fields were `fields` before any change, and tells what it did.
std::string Mutate(std::string& bytes, const std::vector<FileField>& fields, Random& random) {
    switch (random.Below(8)) {
        case 0:
            return Resize(bytes, fields, random);
        case 1:
            return Overwrite(bytes, fields, random);
        case 2:
            return CopyStretch(bytes, fields, random);
        default:
            return ChangeField(bytes, fields, random);
    }
}

// For a storage file only: items moved, doubled, taken out, or changed in several fields that have
// to agree.
std::string MutateItems(std::string& bytes, const SlowScan& scan, Random& random) {
    const SlowItem& item = AnyItem(scan, random);
    if (random.OneIn(3)) {
        return MoveItem(bytes, scan, random);
    }
    return item.kind == ItemKind::kRecord ? ChangeBothSizes(bytes, item, random)
                                          : ChangeBothRevs(bytes, item, random);
}

// --- The family

constexpr u32 kCasesOfAGroup = 200;

struct Base : SoundFiles {
    explicit Base(const History& history)
        : SoundFiles(history),
          storageFields(FieldsOfStorage(files.storage, scan)),
          indexFields(FieldsOfIndex(files.index)) {}

    std::vector<FileField> storageFields;
    std::vector<FileField> indexFields;
};

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
    const Base base(history);
    for (u64 number = 1; number <= kCasesOfAGroup; ++number) {
        run.Case(number, [&] { return RunCase(run, disk, base, number); });
    }
}

const RegisteredFamily kFamily({.name = "field-mutations",
                                .title = "field mutations of storage and index files",
                                .cases = 50000,
                                .runGroup = &RunGroup});

}  // namespace

}  // namespace k9erepl::reliability
