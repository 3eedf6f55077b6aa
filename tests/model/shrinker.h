// Makes a failing script short: takes steps out as long as the rest still fails in the same way.
#ifndef K9EREPL_TESTS_MODEL_SHRINKER_H
#define K9EREPL_TESTS_MODEL_SHRINKER_H

#include <functional>
#include <optional>

#include "model/operation.h"
#include "model/verdict.h"

namespace k9erepl::model {

// Runs a script from nothing. The same script must always give the same answer.
using RunScript = std::function<std::optional<Failure>(const Script&)>;

struct Shrunk {
    Script script;  // ends with the step that fails
    Failure failure;
};

// REQUIRES: `run` answers `failure` for `script`. The first step stays. At most `runsMax` runs.
Shrunk Shrink(const Script& script, const Failure& failure, const RunScript& run, u32 runsMax);

}  // namespace k9erepl::model

#endif  // K9EREPL_TESTS_MODEL_SHRINKER_H
