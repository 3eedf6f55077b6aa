// Computes the plan.
#include "crash/crash_plan.h"

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstring>
#include <iterator>

namespace k9erepl::test {

namespace {

constexpr u32 kRecordsMax = 20;
constexpr u32 kDataSizeMax = 300;  // fits the smallest of the planned blocks

struct RecordMark {
    i64 firstRev;
    u32 recordCount;
    u32 place;
};

const char* OneOf(SeededNumbers& numbers, std::initializer_list<const char*> choices) {
    return std::data(choices)[numbers.Below(static_cast<u32>(choices.size()))];
}

}  // namespace

u64 SeededNumbers::Next() {
    m_state += 0x9E3779B97F4A7C15ULL;
    u64 mixed = m_state;
    mixed = (mixed ^ mixed >> 30U) * 0xBF58476D1CE4E5B9ULL;
    mixed = (mixed ^ mixed >> 27U) * 0x94D049BB133111EBULL;
    return mixed ^ mixed >> 31U;
}

u32 SeededNumbers::Below(u32 limit) {
    assert(limit > 0);
    return static_cast<u32>(Next() % limit);
}

PlannedTransaction PlanTransaction(u64 seed, i64 firstRev) {
    SeededNumbers numbers(seed ^ static_cast<u64>(firstRev) * 0x2545F4914F6CDD1DULL);
    return {firstRev, 1 + numbers.Below(kRecordsMax)};
}

PlannedRecord PlanRecord(u64 seed, const PlannedTransaction& transaction, u32 place) {
    const RecordMark mark = {transaction.firstRev, transaction.recordCount, place};
    SeededNumbers numbers(seed + static_cast<u64>(mark.firstRev) * 1000003 + place);
    PlannedRecord record;
    record.userWord = static_cast<u32>(numbers.Next());
    record.data.resize(sizeof mark + numbers.Below(kDataSizeMax - sizeof mark));
    std::memcpy(record.data.data(), &mark, sizeof mark);
    std::generate(record.data.begin() + static_cast<std::ptrdiff_t>(sizeof mark), record.data.end(),
                  [&] { return static_cast<u8>(numbers.Next()); });
    return record;
}

std::string PlanSettings(u64 seed, u32 round) {
    SeededNumbers numbers(seed + round * 7919ULL);
    std::string settings = "block_size=";
    settings += OneOf(numbers, {"400", "1000", "5000", "100000"});
    settings += ";flush_mode=";
    settings += OneOf(numbers, {"PerTrans;flush_trans_num=1", "PerTrans;flush_trans_num=2",
                                "PerTrans;flush_trans_num=7", "PerData;flush_data_size=1",
                                "PerData;flush_data_size=20000"});
    settings += ";file_size_delta=";
    settings += OneOf(numbers, {"0", "0", "1"});
    settings += ";cache_type=";
    settings += OneOf(numbers, {"Last1", "Last3", "Last50", "AllInMem"});
    settings += ";index_hint=";
    settings += OneOf(numbers, {"1", "2", "10"});
    settings += ";flush_timeout=";
    settings += OneOf(numbers, {"1", "5", "1000"});
    settings += ";force_flush=";
    settings += OneOf(numbers, {"no", "no", "no", "yes"});
    return settings;
}

std::string PlanAsyncSettings(u64 seed, u32 round) {
    SeededNumbers numbers(seed + round * 104729ULL);
    std::string settings = ";async_mode=yes;async_buffer_size=";
    settings += OneOf(numbers, {"0", "1", "16", "1024"});
    return settings;
}

}  // namespace k9erepl::test
