// The program for long runs of the model-based test, and for replaying what it or the test program
// found. CONTRIBUTING.md says when to use it.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>

#include "model/runner.h"
#include "model/seed_run.h"
#include "support/posix/forked.h"
#include "support/temp_folder.h"

namespace {

using namespace k9erepl::model;

constexpr const char* kHelp =
    "Runs random scripts of storage operations and compares every result and every record with a\n"
    "plain model in memory. A difference, a crash or a hang is reported with the seed, a "
    "shortened\n"
    "script and the command that replays it.\n";

constexpr const char* kFooter = R"(
A seed and an operation count make a script; they always make the same one. Each run has a process
and a folder of its own below TMPDIR. Seeds that follow one another go through all combinations of
cache type, block size and flush mode. Several of these programs may run side by side.

Examples:
  model_run --seeds 100000 --operations 5000 --first-seed 1000   a long run
  model_run --seed 17 --operations 2000                          one seed again
  model_run --seed 17 --operations 2000 --only 0,4,8-10 --here   a shortened script, in this
                                                                 process, for a debugger
  model_run --seed 17 --operations 50 --print                    what the script does

K9SYS_LOG=info prints the library's log on standard error.
Exit status: 0 nothing differs, 1 a seed failed, 2 wrong command line.)";

struct Options {
    u64 firstSeed = 1;
    u64 seeds = 200;
    std::size_t operations = 2000;
    u32 secondsMax = 120;
    std::string only;
    bool here = false;
    bool print = false;
    std::string async;
    bool goOn = false;
    CLI::Option* seed = nullptr;
    u64 oneSeed = 0;
};

void Declare(CLI::App& app, Options& options) {
    app.footer(kFooter);
    auto* seeds = app.add_option("--seeds", options.seeds, "how many seeds")->capture_default_str();
    auto* first =
        app.add_option("--first-seed", options.firstSeed, "the first one")->capture_default_str();
    app.add_option("--operations", options.operations, "operations of each script")
        ->check(CLI::Range(1, 100000000))
        ->capture_default_str();
    options.seed = app.add_option("--seed", options.oneSeed, "run this seed only");
    options.seed->excludes(seeds)->excludes(first);
    app.add_option("--only", options.only, "run only these operations of the script, as 0,4,8-10")
        ->needs(options.seed);
    app.add_option("--async", options.async,
                   "open with the asynchronous writer always or never, not as the seed says")
        ->check(CLI::IsMember({"yes", "no"}));
    app.add_flag("--here", options.here, "run in this process, for a debugger");
    app.add_flag("--print", options.print, "print the script, run nothing")->needs(options.seed);
    app.add_flag("--keep-going", options.goOn, "go on with the next seed after a failure");
    app.add_option("--timeout", options.secondsMax, "seconds after which a run counts as hanging")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();
}

// What a process with a run tells its parent, also when it crashes.
struct Progress {
    std::atomic<std::size_t> position;  // of the operation that runs
    char what[200];                     // of a failure; empty: none
    char details[400];
};

// Runs the script in a process of its own. One that ends by a signal, also for lack of progress
// within `secondsMax`, is a failure at the operation where it happened.
std::optional<Failure> RunInChild(const Script& script, u32 secondsMax) {
    const k9erepl::test::Shared<Progress> progress;
    const k9erepl::test::TempFolder folder;
    const int answer = k9erepl::test::AnswerOf(k9erepl::test::StartForked([&] {
        alarm(secondsMax);
        const auto failure = Runner(folder.Path()).Run(script, &progress->position);
        if (failure) {
            progress->position = failure->position;
            (void)std::snprintf(progress->what, sizeof progress->what, "%s", failure->what.c_str());
            (void)std::snprintf(progress->details, sizeof progress->details, "%s",
                                failure->details.c_str());
        }
        return 0;
    }));
    if (answer != 0) {
        return Failure{progress->position, "ended by signal " + std::to_string(-answer), ""};
    }
    return progress->what[0] == '\0'
               ? std::nullopt
               : std::optional(Failure{progress->position, progress->what, progress->details});
}

void Print(const Script& script) {
    for (const Operation& operation : script) {
        (void)std::printf("%s\n", Describe(operation).c_str());
    }
}

// Returns whether nothing differs.
bool RunSeed(const SeedRequest& request, const Options& options) {
    const RunScript run = [&](const Script& script) {
        return options.here ? RunHere(script) : RunInChild(script, options.secondsMax);
    };
    const std::string report = RunAndReport(request, run);
    if (!report.empty()) {
        (void)std::printf("%s\n", report.c_str());
        (void)std::fflush(stdout);
    }
    return report.empty();
}

int RunSeeds(const Options& options, SeedRequest request) {
    const bool one = options.seed->count() > 0;
    const u64 first = one ? options.oneSeed : options.firstSeed;
    const u64 count = one ? 1 : options.seeds;
    u64 failed = 0;
    for (u64 done = 0; done < count && (failed == 0 || options.goOn); ++done) {
        request.seed = first + done;
        failed += RunSeed(request, options) ? 0 : 1;
        if ((done + 1) % 1000 == 0) {
            (void)std::fprintf(stderr, "%s seeds done, %s failed\n",
                               std::to_string(done + 1).c_str(), std::to_string(failed).c_str());
        }
    }
    (void)std::printf("%s\n", failed == 0 ? "nothing differs" : "failed");
    return failed == 0 ? 0 : 1;
}

int Main(int argc, char** argv) {
    CLI::App app{kHelp};
    Options options;
    Declare(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    SeedRequest request{
        .seed = options.oneSeed, .operations = options.operations, .only = {}, .async = {}};
    if (!options.async.empty()) {
        request.async = options.async == "yes";
    }
    if (!options.only.empty() && !ParseNumbers(options.only, &request.only)) {
        (void)std::fprintf(stderr, "--only wants rising numbers like 0,4,8-10\n");
        return 2;
    }
    if (options.print) {
        Print(ScriptOf(request));
        return 0;
    }
    KeepQuiet();
    return RunSeeds(options, request);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Main(argc, argv);
    } catch (const std::exception& error) {
        (void)std::fprintf(stderr, "model_run: %s\n", error.what());
        return 1;
    }
}
