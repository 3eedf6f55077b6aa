// What a crash round writes, as a function of its seed alone: the child that writes and the test
// that reads back both compute it.
#ifndef K9EREPL_TESTS_CRASH_CRASH_PLAN_H
#define K9EREPL_TESTS_CRASH_CRASH_PLAN_H

#include <algorithm>
#include <string>

#include "model/numbers.h"

namespace k9erepl::test {

using model::i64;
using model::Random;
using model::u32;
using model::u64;

// Of the transaction that begins at `firstRev` in the storage of `seed`: 1 to 20.
inline u32 PlanRecordCount(u64 seed, i64 firstRev) {
    return 1 + Random(seed ^ static_cast<u64>(firstRev) * 0x2545F4914F6CDD1DULL).Below(20);
}

struct PlannedRecord {
    u32 userWord = 0;
    std::string data;
};
inline PlannedRecord PlanRecord(u64 seed, i64 rev) {
    Random random(seed + static_cast<u64>(rev) * 1000003);
    PlannedRecord record;
    record.userWord = static_cast<u32>(random.Next());
    record.data.resize(random.Below(300));  // fits the smallest of the planned blocks
    std::generate(record.data.begin(), record.data.end(),
                  [&] { return static_cast<char>(random.Next()); });
    return record;
}

// An acknowledged revision, as the child tells it.
inline constexpr std::size_t kAcknowledgementSize = 21;
inline constexpr const char* kAcknowledgementFormat = "%20lld;";

// The settings of round `round`, without "file"; small blocks, every flush mode, growth and cache.
inline std::string PlanSettings(u64 seed, u32 round, bool async) {
    Random random(seed + round * 7919ULL);
    const auto oneOf = [&](std::initializer_list<const char*> choices) {
        return std::string(random.OneOf(choices));
    };
    std::string settings = "block_size=" + oneOf({"400", "1000", "5000", "100000"});
    settings += ";flush_mode=" + oneOf({"PerTrans;flush_trans_num=1", "PerTrans;flush_trans_num=2",
                                        "PerTrans;flush_trans_num=7", "PerData;flush_data_size=1",
                                        "PerData;flush_data_size=20000"});
    settings += ";file_size_delta=" + oneOf({"0", "0", "1"});
    settings += ";cache_type=" + oneOf({"Last1", "Last3", "Last50", "AllInMem"});
    settings += ";index_hint=" + oneOf({"1", "2", "10"});
    settings += ";flush_timeout=" + oneOf({"1", "5", "1000"});
    settings += ";force_flush=" + oneOf({"no", "no", "no", "yes"});
    return async ? settings + ";async_mode=yes;async_buffer_size=" + oneOf({"0", "1", "16", "1024"})
                 : settings;
}

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_CRASH_CRASH_PLAN_H
