// Makes the scripts of seeds, runs them, shortens those that fail, and tells of the failures. The
// test program runs them in its own process; the program for long runs gives each one a process, so
// that a crash is a failure like any other.
#ifndef K9EREPL_TESTS_MODEL_SEED_RUN_H
#define K9EREPL_TESTS_MODEL_SEED_RUN_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "model/operation.h"
#include "model/verdict.h"

namespace k9erepl::model {

// The script of a seed (generator.cpp). The first step opens the storage; seeds that follow one
// another go through all combinations of cache type, block size and flush mode. A longer script of
// the same seed begins like a shorter one. REQUIRES: length > 0.
Script MakeScript(u64 seed, std::size_t length);
// Whether most openings of the script use the asynchronous writer; else none does.
bool RunsAsync(u64 seed);

// Runs a script from nothing. The same script must always give the same answer.
using RunScript = std::function<std::optional<Failure>(const Script&)>;

// A failing script without the steps that it does not need to fail in the same way.
struct Shrunk {
    Script script;  // ends with the step that fails
    Failure failure;
};

// REQUIRES: `run` answers `failure` for `script`. The first step stays. At most `runsMax` runs.
Shrunk Shrink(const Script& script, const Failure& failure, const RunScript& run, u32 runsMax);

// Refused records are logged as errors: from here on nothing is, unless K9SYS_LOG asks for it.
void KeepQuiet();

// Runs `script` in a folder of its own, which is removed afterwards.
std::optional<Failure> RunHere(const Script& script);

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
