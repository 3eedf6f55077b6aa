// The mixture of steps of a script; see seed_run.h.
#include "model/seed_run.h"

#include <array>
#include <span>

namespace k9erepl::model {

namespace {

template <typename T>
struct Weighted {
    u32 weight;
    T value;
};

template <typename T>
T Draw(Random& random, std::span<const Weighted<T>> choices) {
    u32 total = 0;
    for (const auto& choice : choices) {
        total += choice.weight;
    }
    u32 ticket = random.Below(total);
    for (const auto& choice : choices) {
        if (ticket < choice.weight) {
            return choice.value;
        }
        ticket -= choice.weight;
    }
    return choices.back().value;
}

constexpr std::array<Weighted<OpKind>, 18> kKinds = {{
    {70, OpKind::kBegin},
    {120, OpKind::kCommit},
    {30, OpKind::kRollback},
    {260, OpKind::kInsert},
    {80, OpKind::kInsertPrepared},
    {40, OpKind::kInsertMany},
    {130, OpKind::kEnumerate},
    {20, OpKind::kEnumerateFrom},
    {5, OpKind::kEnumerateWithoutVisitor},
    {60, OpKind::kClear},
    {8, OpKind::kClearAll},
    {6, OpKind::kTruncate},
    {20, OpKind::kSetLifenum},
    {8, OpKind::kLoad},
    {10, OpKind::kFlushOnIdle},
    {8, OpKind::kLookAtFile},
    {12, OpKind::kHoldWriter},
    {11, OpKind::kReopen},
}};

constexpr std::array<Weighted<OpKind>, 8> kActions = {{
    {30, OpKind::kInsert},
    {10, OpKind::kInsertPrepared},
    {20, OpKind::kClear},
    {2, OpKind::kClearAll},
    {3, OpKind::kTruncate},
    {20, OpKind::kCommit},
    {10, OpKind::kBegin},
    {10, OpKind::kEnumerate},
}};

constexpr std::array<Weighted<RevPlace>, 7> kRangePlaces = {{
    {60, RevPlace::kKept},
    {10, RevPlace::kOldest},
    {15, RevPlace::kNext},
    {10, RevPlace::kTransaction},
    {4, RevPlace::kAbsolute},
    {4, RevPlace::kLowest},
    {10, RevPlace::kHighest},
}};

constexpr std::array<Weighted<RevPlace>, 7> kClearPlaces = {{
    {60, RevPlace::kKept},
    {12, RevPlace::kOldest},
    {10, RevPlace::kNext},
    {8, RevPlace::kTransaction},
    {3, RevPlace::kAbsolute},
    {1, RevPlace::kLowest},
    {1, RevPlace::kHighest},
}};

constexpr std::array<Weighted<u32>, 8> kClearModes = {{
    {25, 0},
    {12, 1},
    {20, 2},
    {10, 3},
    {8, 4},
    {3, 7},
    {2, 0x80000000U},
    {2, 0xFFFFFFFFU},
}};

constexpr std::array<Weighted<SizeClass>, 5> kSizes = {{
    {70, SizeClass::kBytes},
    {18, SizeClass::kPermille},
    {6, SizeClass::kFits},
    {5, SizeClass::kTooLarge},
    {1, SizeClass::kClaim},
}};

i64 ShiftOf(RevPlace place, Random& random) {
    switch (place) {
        case RevPlace::kAbsolute:
            return random.OneOf<i64>({0, 1, -1, -1000000});
        case RevPlace::kKept:
        case RevPlace::kOldest:
        case RevPlace::kNext:
            return random.OneOf<i64>({0, 0, 0, 1, -1, 100});
        case RevPlace::kTransaction:
            return -static_cast<i64>(random.Below(12));
        case RevPlace::kLowest:
            return random.Below(2);
        case RevPlace::kHighest:
            return -static_cast<i64>(random.Below(2));
    }
    return 0;
}

RevChoice AnyRev(std::span<const Weighted<RevPlace>> places, Random& random) {
    RevChoice choice;
    choice.place = Draw(random, places);
    choice.permille = random.Below(1000);
    choice.shift = ShiftOf(choice.place, random);
    return choice;
}

// A clear keeps little of the storage, else it would grow for ever, or only drops the very first.
RevChoice RevToClear(Random& random) {
    RevChoice choice = AnyRev(kClearPlaces, random);
    choice.permille = random.OneIn(3)   ? random.Below(1000)
                      : random.OneIn(2) ? random.Below(60)
                                        : 900 + random.Below(100);
    return choice;
}

RevChoice RevToInsert(Random& random) {
    RevChoice choice{.place = RevPlace::kNext};
    if (random.OneIn(600)) {
        choice.place = RevPlace::kHighest;
        choice.shift = -static_cast<i64>(random.Below(3));
    } else if (random.OneIn(10)) {
        choice.shift = random.OneOf<i64>({-1, -2, -100, kLowestRev});
    } else if (random.OneIn(3)) {
        choice.shift = random.OneOf<i64>({1, 2, 10, 1000, 5000000000});
    }
    return choice;
}

SizeChoice AnySize(Random& random) {
    SizeChoice choice;
    choice.of = Draw<SizeClass>(random, kSizes);
    switch (choice.of) {
        case SizeClass::kBytes:
            choice.number = random.OneIn(8) ? 0 : random.Below(80);
            break;
        case SizeClass::kPermille:
            choice.number = random.Below(700);
            break;
        case SizeClass::kFits:
        case SizeClass::kTooLarge:
            choice.number = random.OneIn(2) ? 0 : random.Below(100);
            break;
        case SizeClass::kClaim:
            choice.number = random.Below(40);
            break;
    }
    return choice;
}

void PlanVisitor(Operation& operation, Random& random) {
    if (!random.OneIn(3)) {
        return;
    }
    operation.count = 1 + random.Below(random.OneIn(2) ? 3 : 40);
    operation.stopCode = random.OneOf<u32>({1, 5, 12, 27, 0x8011, 0xFFFFFFFFU});
    operation.acts = random.OneIn(3);
    operation.action = Draw<OpKind>(random, kActions);
}

ReopenPlan PlanReopen(const Settings& before, bool async, Random& random) {
    ReopenPlan plan;
    plan.settings = CombinationOf(random.Below(CombinationCount()), random);
    // The writers take turns at one file.
    plan.settings.async = async && !random.OneIn(6);
    if (!random.OneIn(3)) {
        plan.settings.blockSize = before.blockSize;
    }
    plan.index = random.OneOf({IndexFate::kKeep, IndexFate::kKeep, IndexFate::kDelete,
                               IndexFate::kDamage, IndexFate::kForge, IndexFate::kRestoreOlder});
    plan.damagePermille = random.Below(1000);
    plan.forgery = random.OneOf<i64>({-32, -24, -1, 1, 24, 32, 100, 1000000});
    plan.saveIndex = random.OneIn(2);
    if (random.OneIn(8)) {
        plan.create = random.OneOf({CreateFirst::kRefused, CreateFirst::kLeave,
                                    CreateFirst::kReplace, CreateFirst::kDelete});
    }
    plan.load = !random.OneIn(12);
    plan.tooSmall = random.OneIn(12);
    return plan;
}

Operation NextOperation(const Settings& first, bool async, Random& random) {
    Operation operation;
    operation.kind = Draw<OpKind>(random, kKinds);
    operation.from = AnyRev(kRangePlaces, random);
    operation.to = AnyRev(kRangePlaces, random);
    operation.size = AnySize(random);
    operation.word = static_cast<u32>(random.Next());
    operation.mode = Draw<u32>(random, kClearModes);
    operation.count = operation.kind == OpKind::kInsertMany ? 2 + random.Below(40) : 0;
    switch (operation.kind) {
        case OpKind::kEnumerate:
        case OpKind::kEnumerateFrom:
            PlanVisitor(operation, random);
            break;
        case OpKind::kReopen:
            operation.reopen = PlanReopen(first, async, random);
            break;
        default:
            break;
    }
    const bool inserts =
        operation.kind == OpKind::kInsertPrepared || operation.action == OpKind::kInsertPrepared;
    operation.rev = inserts ? RevToInsert(random) : RevToClear(random);
    return operation;
}

}  // namespace

// Every combination comes in both halves.
bool RunsAsync(u64 seed) {
    return (seed + seed / CombinationCount()) % 2 == 1;
}

Script MakeScript(u64 seed, std::size_t length) {
    Random random(seed);
    Operation open;
    open.kind = OpKind::kReopen;
    open.reopen.settings = CombinationOf(static_cast<u32>(seed % CombinationCount()), random);
    const bool async = RunsAsync(seed);
    open.reopen.settings.async = async;
    const Settings first = open.reopen.settings;
    Script script = {open};
    while (script.size() < length) {
        script.push_back(NextOperation(first, async, random));
        script.back().number = script.size() - 1;
    }
    return script;
}

}  // namespace k9erepl::model
