// What a crash round writes, as a function of its seed alone: the child that writes and the test
// that reads back both compute it. Every record knows its transaction and its place in it.
#ifndef K9EREPL_TESTS_CRASH_CRASH_PLAN_H
#define K9EREPL_TESTS_CRASH_CRASH_PLAN_H

#include <string>
#include <vector>

#include "platform/int_types.h"

namespace k9erepl::test {

// A small generator whose values depend on nothing but the seed.
class SeededNumbers {
  public:
    explicit SeededNumbers(u64 seed) : m_state(seed) {}
    u64 Next();
    // 0 to limit - 1. REQUIRES: limit > 0.
    u32 Below(u32 limit);

  private:
    u64 m_state;
};

// The transaction that begins at `firstRev` in the storage of `seed`.
struct PlannedTransaction {
    i64 firstRev = 0;
    u32 recordCount = 0;  // 1 to 20
};
PlannedTransaction PlanTransaction(u64 seed, i64 firstRev);

// The record at `place` (0 is the first) of `transaction`.
struct PlannedRecord {
    u32 userWord = 0;
    std::vector<u8> data;
};
PlannedRecord PlanRecord(u64 seed, const PlannedTransaction& transaction, u32 place);

// The settings of round `round`, without "file"; small blocks, every flush mode, growth and cache.
std::string PlanSettings(u64 seed, u32 round);
// What an asynchronous round adds to them.
std::string PlanAsyncSettings(u64 seed, u32 round);

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_CRASH_CRASH_PLAN_H
