// Turns the relative choices of an operation into numbers, from what the model holds.
#ifndef K9EREPL_TESTS_MODEL_CHOICES_H
#define K9EREPL_TESTS_MODEL_CHOICES_H

#include "model/model.h"
#include "model/operation.h"

namespace k9erepl::model {

i64 Resolve(const RevChoice& choice, const Model& model);

// A record to hand in. What it claims is its data's size, except for a claim that nobody can meet.
struct PlannedRecord {
    Record record;
    u32 dataSize = 0;

    u64 Need() const { return u64{dataSize} + kRecordOverhead; }
};
// The data follow from the seed.
PlannedRecord MakeRecord(const SizeChoice& choice, u32 blockSize, u32 seed);

}  // namespace k9erepl::model

#endif  // K9EREPL_TESTS_MODEL_CHOICES_H
