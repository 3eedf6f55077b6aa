// Makes the script of a seed.
#ifndef K9EREPL_TESTS_MODEL_GENERATOR_H
#define K9EREPL_TESTS_MODEL_GENERATOR_H

#include "model/operation.h"

namespace k9erepl::model {

// The first step opens the storage; seeds that follow one another go through all combinations of
// cache type, block size and flush mode. A longer script of the same seed begins like a shorter
// one. REQUIRES: length > 0.
Script MakeScript(u64 seed, std::size_t length);
// Whether most openings of the script use the asynchronous writer; else none does.
bool RunsAsync(u64 seed);

}  // namespace k9erepl::model

#endif  // K9EREPL_TESTS_MODEL_GENERATOR_H
