// Runs the scripts of seeds and tells of failures. The test program runs them in its own process;
// the program for long runs gives each one a process, so that a crash is a failure like any other.
#ifndef K9EREPL_TESTS_MODEL_SEED_RUN_H
#define K9EREPL_TESTS_MODEL_SEED_RUN_H

#include <optional>
#include <string>
#include <vector>

#include "model/shrinker.h"

namespace k9erepl::model {

// Refused records are logged as errors: from here on nothing is, unless K9SYS_LOG asks for it.
void KeepQuiet();

// Runs `script` in a folder of its own, which is removed afterwards.
std::optional<Failure> RunHere(const Script& script);

// The same in a process of its own. A process that ends by a signal, also for lack of progress
// within `secondsMax`, is a failure at the operation where it happened. This process must have one
// thread only. (posix/child_run.cpp)
std::optional<Failure> RunInChild(const Script& script, u32 secondsMax);

struct SeedRequest {
    u64 seed = 0;
    std::size_t operations = 0;
    std::vector<std::size_t> only;  // the numbers of the operations to run; empty: all
    std::optional<bool> async;      // every opening uses this writer; else the seed says
};

// The part of the seed's script that the request asks for.
Script ScriptOf(const SeedRequest& request);

// Runs the request; when it fails, shrinks the script and returns the whole report: what differs,
// the shortened script and the command that replays it. Empty when nothing differs.
std::string RunAndReport(const SeedRequest& request, const RunScript& run);

// "0,3,9-12" and back. Numbers rise. Parsing answers false for anything else.
std::string FormatNumbers(const Script& script);
bool ParseNumbers(const std::string& text, std::vector<std::size_t>* numbers);

}  // namespace k9erepl::model

#endif  // K9EREPL_TESTS_MODEL_SEED_RUN_H
