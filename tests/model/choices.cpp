// Revisions and sizes of a step; see the header.
#include "model/choices.h"

#include <algorithm>
#include <cstring>

namespace k9erepl::model {

namespace {

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
