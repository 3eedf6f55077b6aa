// How the steps of a script read, and the numbers that they stand for.
#include "model/operation.h"

#include <algorithm>
#include <cstring>

#include "model/model.h"

namespace k9erepl::model {

namespace {

std::string Shifted(const std::string& base, i64 shift) {
    if (shift == 0) {
        return base;
    }
    return base + (shift > 0 ? "+" : "") + std::to_string(shift);
}

std::string Text(const RevChoice& choice) {
    switch (choice.place) {
        case RevPlace::kAbsolute:
            return std::to_string(choice.shift);
        case RevPlace::kKept:
            return Shifted("kept[" + std::to_string(choice.permille) + "/1000]", choice.shift);
        case RevPlace::kOldest:
            return Shifted("oldest", choice.shift);
        case RevPlace::kNext:
        case RevPlace::kTransaction:
            return Shifted("next", choice.shift);
        case RevPlace::kLowest:
            return Shifted("lowest", choice.shift);
        case RevPlace::kHighest:
            return Shifted("highest", choice.shift);
    }
    return "?";
}

std::string Text(const SizeChoice& choice) {
    const std::string number = std::to_string(choice.number);
    switch (choice.of) {
        case SizeClass::kBytes:
            return number + " bytes";
        case SizeClass::kPermille:
            return number + "/1000 of a block";
        case SizeClass::kFits:
            return "a block less " + number;
        case SizeClass::kTooLarge:
            return "a block and " + std::to_string(choice.number + 1);
        case SizeClass::kClaim:
            return "a claim of 4 GiB less " + std::to_string(choice.number + 1);
    }
    return "?";
}

std::string Text(const ReopenPlan& plan) {
    static constexpr const char* kFates[] = {"", ", index deleted", ", index damaged",
                                             ", index forged", ", older index restored"};
    static constexpr const char* kCreates[] = {"", ", create refused", ", create leaves it",
                                               ", create replaces it", ", deleted and created"};
    static constexpr const char* kKinds[] = {"", " (without file)", " (without writing)"};
    return plan.settings.Describe() + kKinds[static_cast<int>(plan.settings.kind)] +
           kCreates[static_cast<int>(plan.create)] + kFates[static_cast<int>(plan.index)] +
           (plan.saveIndex ? ", index saved" : "") + (plan.load ? "" : ", not loaded") +
           (plan.tooSmall ? ", blocks may be too small" : "");
}

std::string VisitorText(const Operation& operation) {
    if (operation.count == 0) {
        return "";
    }
    const std::string at = ", at record " + std::to_string(operation.count);
    if (!operation.acts) {
        return at + " answer " + std::to_string(operation.stopCode);
    }
    return at + " " + NameOf(operation.action) + " rev " + Text(operation.rev) + " mode " +
           std::to_string(operation.mode) + ", " + Text(operation.size);
}

std::string Arguments(const Operation& operation) {
    switch (operation.kind) {
        case OpKind::kInsert:
            return Text(operation.size);
        case OpKind::kInsertPrepared:
            return Text(operation.rev) + ", " + Text(operation.size);
        case OpKind::kInsertMany:
            return std::to_string(operation.count) + " records of " + Text(operation.size);
        case OpKind::kEnumerate:
            return Text(operation.from) + " to " + Text(operation.to) + VisitorText(operation);
        case OpKind::kEnumerateFrom:
            return Text(operation.from) + VisitorText(operation);
        case OpKind::kEnumerateWithoutVisitor:
            return Text(operation.from) + " to " + Text(operation.to);
        case OpKind::kClear:
            return "to " + Text(operation.rev) + " mode " + std::to_string(operation.mode);
        case OpKind::kClearAll:
            return "mode " + std::to_string(operation.mode);
        case OpKind::kSetLifenum:
            return std::to_string(operation.word);
        case OpKind::kReopen:
            return Text(operation.reopen);
        default:
            return "";
    }
}

// --- Numbers

i64 Base(const RevChoice& choice, const Model& model) {
    switch (choice.place) {
        case RevPlace::kAbsolute:
            return 0;
        case RevPlace::kKept: {
            const Records& served = model.Served();
            if (served.empty()) {
                return model.NextRev();
            }
            const std::size_t skip = served.size() * choice.permille / 1000;
            return std::next(served.begin(), static_cast<std::ptrdiff_t>(skip))->first;
        }
        case RevPlace::kOldest:
            return model.Oldest();
        case RevPlace::kNext:
        case RevPlace::kTransaction:
            return model.NextRev();
        case RevPlace::kLowest:
            return kLowestRev;
        case RevPlace::kHighest:
            return kHighestRev;
    }
    return 0;
}

u32 DataSize(const SizeChoice& choice, u32 capacity) {
    switch (choice.of) {
        case SizeClass::kBytes:
            return std::min(choice.number, capacity);
        case SizeClass::kPermille:
            return static_cast<u32>(u64{capacity} * choice.number / 1000);
        case SizeClass::kFits:
            return capacity - std::min(choice.number, capacity);
        case SizeClass::kTooLarge:
            return capacity + 1 + choice.number;
        case SizeClass::kClaim:
            return std::numeric_limits<u32>::max() - choice.number;
    }
    return 0;
}

std::string MakeData(u32 size, u32 seed) {
    std::string data(size, '\0');
    u64 state = seed + 0x2545F4914F6CDD1DULL;
    for (std::size_t at = 0; at < data.size(); at += sizeof state) {
        state = state * 6364136223846793005ULL + 1442695040888963407ULL;
        std::memcpy(data.data() + at, &state, std::min(sizeof state, data.size() - at));
    }
    return data;
}

}  // namespace

const char* NameOf(OpKind kind) {
    static constexpr const char* kNames[] = {
        "Begin",      "Commit",        "Rollback",
        "Insert",     "InsertP",       "InsertMany",
        "Enumerate",  "EnumerateFrom", "EnumerateWithoutVisitor",
        "Clear",      "ClearAll",      "Truncate",
        "SetLifenum", "Load",          "FlushOnIdle",
        "LookAtFile", "HoldWriter",    "Reopen"};
    return kNames[static_cast<std::size_t>(kind)];
}

std::string Describe(const Operation& operation) {
    return std::to_string(operation.number) + " " + NameOf(operation.kind) + " " +
           Arguments(operation);
}

i64 Resolve(const RevChoice& choice, const Model& model) {
    return AddHeld(Base(choice, model), choice.shift);
}

PlannedRecord MakeRecord(const SizeChoice& choice, u32 blockSize, u32 seed) {
    PlannedRecord planned;
    planned.dataSize = DataSize(choice, blockSize - kRecordOverhead);
    planned.record.userWord = seed;
    if (choice.of != SizeClass::kClaim) {
        planned.record.data = MakeData(planned.dataSize, seed);
    }
    return planned;
}

}  // namespace k9erepl::model
