// The program that runs the families: some cases of each in every test run, many more by hand.
// CONTRIBUTING.md says when to use it.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <fstream>
#include <string>
#include <string_view>

#include "model/seed_run.h"
#include "reliability/family_run.h"

namespace {

using namespace k9erepl::reliability;
using k9erepl::u64;

constexpr const char* kHelp =
    "Runs storages into faults and crashes, thousands of times, and compares what is left with a\n"
    "plain model in memory. Each family is one kind of trouble.\n";

constexpr const char* kFooter = R"(
Examples:
  reliability_run --list                                the families
  reliability_run --family crash-prefixes                  one family, as in every test run
  reliability_run --family crash-prefixes --minutes 30 --seed 7
  reliability_run --family crash-prefixes --seed 7 --only 12.345    one case again
  reliability_run --json numbers.json                   all families

A failing case prints the command that replays it. Exit status: 0 no case failed, 1 one did, 2
wrong command line, 3 the process crashed or hung.)";

struct Options {
    std::vector<std::string> families;
    FamilyRequest request;
    u64 count = 0;
    u64 divisor = 1;
    std::string only;
    std::string shard = "0/1";
    std::string json;
    bool list = false;
};

void Declare(CLI::App& app, Options& options) {
    app.footer(kFooter);
    app.add_option("--family", options.families, "run this family; again for more; all without it");
    app.add_option("--seed", options.request.seed, "everything follows from it")
        ->capture_default_str();
    app.add_option("--count", options.count,
                   "cases of each family; the family's own number without it");
    app.add_option("--divide", options.divisor, "run only this part of the family's own number")
        ->check(CLI::Range(1, 1000000))
        ->capture_default_str();
    app.add_option("--only", options.only, "run one group, or one case of it, as 12 or 12.345");
    app.add_option("--minutes", options.request.minutesMax,
                   "run each family that long, however many cases that are");
    app.add_option("--shard", options.shard, "as 0/2 and 1/2: take every second group")
        ->capture_default_str();
    app.add_option("--json", options.json, "write the numbers to this file");
    app.add_option("--keep", options.request.keepFolder,
                   "an existing folder for the files of a failing case");
    app.add_flag("--list", options.list, "print the families and what each is about");
}

// "a<separator>b" or "a"; *hasSecond tells which.
bool ParseNumbers(const std::string& text, char separator, u64* first, u64* second,
                  bool* hasSecond) {
    const std::size_t at = text.find(separator);
    *hasSecond = at != std::string::npos;
    try {
        std::size_t used = 0;
        *first = std::stoull(text, &used);
        if (*hasSecond) {
            *second = std::stoull(text.substr(at + 1));
        }
        return used == std::min(at, text.size());
    } catch (const std::exception&) {
        return false;
    }
}

bool Complete(Options& options) {
    FamilyRequest& request = options.request;
    bool hasSecond = false;
    if (!ParseNumbers(options.shard, '/', &request.shard, &request.shards, &hasSecond) ||
        !hasSecond || request.shard >= request.shards) {
        (void)std::fprintf(stderr, "--shard wants numbers like 0/2\n");
        return false;
    }
    u64 group = 0;
    u64 number = 0;
    if (!options.only.empty()) {
        if (!ParseNumbers(options.only, '.', &group, &number, &hasSecond)) {
            (void)std::fprintf(stderr, "--only wants numbers like 12 or 12.345\n");
            return false;
        }
        request.onlyGroup = group;
        request.onlyCase = hasSecond ? std::optional(number) : std::nullopt;
    }
    return true;
}

// The families that are asked for; nothing when one of them is unknown.
std::vector<Family> FamiliesOf(const Options& options) {
    std::vector<Family> families;
    for (const Family& family : AllFamilies()) {
        const auto& names = options.families;
        if (names.empty() || std::find(names.begin(), names.end(), family.name) != names.end()) {
            families.push_back(family);
        }
    }
    if (!options.families.empty() && families.size() < options.families.size()) {
        (void)std::fprintf(stderr, "no such family; --list shows them\n");
        families.clear();
    }
    return families;
}

u64 CasesOf(const Family& family, const Options& options) {
    if (options.request.minutesMax > 0) {
        return options.count;
    }
    const u64 cases = options.count > 0 ? options.count : family.cases / options.divisor;
    return std::max<u64>(cases, 1);
}

int RunFamilies(const Options& options) {
    const std::vector<Family> families = FamiliesOf(options);
    std::string json;
    u64 failed = 0;
    for (const Family& family : families) {
        FamilyRequest request = options.request;
        request.cases = CasesOf(family, options);
        const FamilyResult result = RunFamily(family, request);
        failed += result.failed;
        json += (json.empty() ? "[" : ",\n ") + Json(result);
        (void)std::printf("%s\n", Summary(result).c_str());
        (void)std::fflush(stdout);
    }
    if (!options.json.empty()) {
        std::ofstream(options.json) << json << "]\n";
    }
    return families.empty() ? 2 : failed == 0 ? 0 : 1;
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
    if (!Complete(options)) {
        return 2;
    }
    if (options.list) {
        for (const Family& family : AllFamilies()) {
            (void)std::printf("%-20s %s (%s cases)\n", family.name.c_str(), family.title.c_str(),
                              std::to_string(family.cases).c_str());
        }
        return 0;
    }
    k9erepl::model::KeepQuiet();
    return RunFamilies(options);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Main(argc, argv);
    } catch (const std::exception& error) {
        (void)std::fprintf(stderr, "reliability_run: %s\n", error.what());
        return 1;
    }
}
