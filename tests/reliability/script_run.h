// A script of operations on one storage, as a function of its seed alone, run on the library with
// a model beside it. A process that is to be killed runs it on real files; the family that judges
// what it left runs it, too, to know every state that the storage had.
#ifndef K9EREPL_TESTS_RELIABILITY_SCRIPT_RUN_H
#define K9EREPL_TESTS_RELIABILITY_SCRIPT_RUN_H

#include <functional>
#include <string>
#include <vector>

#include "model/content.h"
#include "model/settings.h"

namespace k9erepl::reliability {

struct ScriptPlan {
    model::u32 operations = 30;
    bool async = false;
    bool forceFlush = false;
    bool startsOver = true;  // truncations and clears of everything, too
};

// Operation 0 creates the storage, 1 opens it, the last one closes it.
struct ScriptHooks {
    std::function<void(model::u32 operation)> begins;
    // What operations led to, up to this one, survives the process from now on. Of the asynchronous
    // writer this comes in its thread.
    std::function<void(model::u32 operation)> acknowledges;
};

struct ScriptResult {
    model::Settings settings;
    std::vector<model::Content> states;  // of the file, after each operation
    std::string problem;                 // what was answered unexpectedly, and ended the script
    model::u32 failed = 0;               // that operation
    model::u32 code = 0;                 // and its answer
};

ScriptResult RunScript(const std::string& path, const ScriptPlan& plan, model::u64 seed,
                       const ScriptHooks& hooks);

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_SCRIPT_RUN_H
