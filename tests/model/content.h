// What a storage holds: the plain data that the model keeps and compares.
#ifndef K9EREPL_TESTS_MODEL_CONTENT_H
#define K9EREPL_TESTS_MODEL_CONTENT_H

#include <map>
#include <string>

#include "model/numbers.h"

namespace k9erepl::model {

constexpr u32 kRecordOverhead = 24;  // bytes of a block that a record needs besides its data

struct Record {
    u32 userWord = 0;
    std::string data;

    u64 Need() const { return u64{data.size()} + kRecordOverhead; }
    bool operator==(const Record&) const = default;
};

using Records = std::map<i64, Record>;

// Two bounds where the library may do one thing or the other, equal where it may not.
struct Bounds {
    i64 low = 0;
    i64 high = 0;

    bool Hold(i64 value) const { return low <= value && value <= high; }
};

// A storage file that nobody has open.
struct Content {
    Records records;       // those that are served
    Bounds oldest;         // the oldest kept revision
    Bounds nextRev{1, 1};  // what a load makes the next revision
    u32 lifenum = 0;
    i64 mark = 0;
    u64 largestNeed = 0;   // of any record in the file, served or not
    bool hasDead = false;  // the file holds records that are no longer served
};

}  // namespace k9erepl::model

#endif  // K9EREPL_TESTS_MODEL_CONTENT_H
