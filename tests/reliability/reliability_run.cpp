// The program that runs the families: some cases of each in every test run, many more by hand.
// CONTRIBUTING.md says when to use it.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "model/seed_run.h"
#include "reliability/family.h"

namespace k9erepl::reliability {

namespace {

using Clock = std::chrono::steady_clock;

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

constexpr u64 kFailuresPrintedMax = 10;
constexpr u64 kEmptyGroupsMax = 1000;
constexpr std::chrono::seconds kLongest{120};  // that a case may take
constexpr std::array kFatal = {SIGSEGV, SIGABRT, SIGFPE, SIGILL};

struct Options {
    std::vector<std::string> families;
    u64 seed = 1;
    u64 count = 0;    // cases of all shards; 0: the family's own number, or as many as time allows
    u64 divisor = 1;  // of the family's own number
    std::string only;
    std::optional<u64> onlyGroup;
    std::optional<u64> onlyCase;  // of that group
    double minutesMax = 0;        // of each family; 0: no limit
    std::string shardText = "0/1";
    u64 shard = 0;  // this one of
    u64 shards = 1;
    bool stopsAtFailure = false;
    std::string json;
    std::string keepFolder;  // for the files of a failing case
    bool list = false;
};

std::vector<Family>& Table() {
    static std::vector<Family> families;
    return families;
}

// --- The watch over cases that crash or hang

// A handler may look at nothing else.
std::array<char, 400> g_command{};

[[noreturn]] void Tell(const char* what) {
    (void)std::fprintf(stderr, "\n%s in:\n  %s\n", what, g_command.data());
    (void)std::fflush(stderr);
    std::_Exit(3);
}

extern "C" void OnSignal(int /*number*/) {
    Tell("CRASHED");
}

// While it lives a fatal signal, or a case that takes too long, prints the command that replays the
// case, and ends the process. One at a time.
class Watchdog {
  public:
    Watchdog() : m_thread([this] { Watch(); }) { SetHandlers(&OnSignal); }
    ~Watchdog() {
        {
            const std::lock_guard lock(m_mutex);
            m_end = true;
        }
        m_ended.notify_all();
        m_thread.join();
        SetHandlers(SIG_DFL);
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    void Running(const std::string& command) {
        std::strncpy(g_command.data(), command.c_str(), g_command.size() - 1);
        ++m_case;
    }

  private:
    static void SetHandlers(void (*handler)(int)) {
        for (const int number : kFatal) {
            (void)std::signal(number, handler);
        }
    }
    void Watch() {
        std::unique_lock lock(m_mutex);
        unsigned before = m_case;
        while (!m_ended.wait_for(lock, kLongest, [this] { return m_end; })) {
            if (m_case == before) {
                Tell("HANGS");
            }
            before = m_case;
        }
    }

    std::atomic<unsigned> m_case{0};
    std::mutex m_mutex;
    std::condition_variable m_ended;
    bool m_end = false;  // guarded by m_mutex
    std::thread m_thread;
};

// --- The run of a family

class Runner final : public GroupRun {
  public:
    Runner(const Family& family, const Options& options)
        : m_family(family), m_options(options), m_casesMax(CasesMax(family, options)) {}

    void Run() {
        if (m_options.onlyGroup) {
            RunGroup(*m_options.onlyGroup);
        } else {
            RunGroups();
        }
        m_secondsTaken = SecondsSinceStart();
    }
    u64 Failed() const { return m_failed; }
    std::string Summary() const;  // one line
    std::string Json() const;

    u64 Seed() const override { return Mix(m_options.seed, m_group + 1); }
    u64 Number() const override { return m_group; }
    bool Wants(u64 number) const override {
        return m_options.onlyCase ? number == *m_options.onlyCase : !Enough();
    }
    bool Enough() const override {
        return (m_casesMax > 0 && m_cases >= m_casesMax) ||
               (m_options.stopsAtFailure && m_failed > 0) ||
               (m_options.minutesMax > 0 && SecondsSinceStart() > m_options.minutesMax * 60);
    }
    void Count(const std::string& what, u64 by) override { m_counters[what] += by; }
    void Keep(const DiskImage& image, const Changes& changes, std::size_t done) override {
        if (!m_options.keepFolder.empty()) {
            m_image = image;
            m_changes.assign(changes.begin(), changes.begin() + static_cast<std::ptrdiff_t>(done));
        }
    }

    void Case(u64 number, const std::function<std::string()>& check) override {
        if (!Wants(number)) {
            return;
        }
        m_watchdog.Running(Command(number));
        ++m_cases;
        std::string problem;
        try {
            problem = check();
        } catch (const std::exception& error) {
            problem = error.what();
        }
        if (!problem.empty()) {
            Fail(number, problem);
        }
    }

  private:
    // 0: any number.
    static u64 CasesMax(const Family& family, const Options& options) {
        const bool own = options.count == 0 && options.minutesMax <= 0;
        const u64 cases = own ? std::max<u64>(family.cases / options.divisor, 1) : options.count;
        return options.onlyGroup ? 0 : (cases + options.shards - 1) / options.shards;
    }

    void RunGroups() {
        u64 empty = 0;
        for (u64 group = m_options.shard; !Enough() && empty < kEmptyGroupsMax;
             group += m_options.shards) {
            const u64 before = m_cases;
            RunGroup(group);
            empty = m_cases == before ? empty + 1 : 0;
        }
    }

    void RunGroup(u64 group) {
        m_group = group;
        m_watchdog.Running(Command({}));
        ++m_groups;
        m_family.runGroup(*this);
    }

    double SecondsSinceStart() const {
        return std::chrono::duration<double>(Clock::now() - m_start).count();
    }

    std::string Command(std::optional<u64> number) const {
        return "reliability_run --family " + m_family.name + " --seed " +
               std::to_string(m_options.seed) + " --only " + std::to_string(m_group) +
               (number ? "." + std::to_string(*number) : "");
    }

    void Fail(u64 number, const std::string& problem) {
        if (++m_failed > kFailuresPrintedMax) {
            return;
        }
        (void)std::printf("FAILED %s, seed %s: %s\n  replay: %s\n", m_family.name.c_str(),
                          std::to_string(m_options.seed).c_str(), problem.c_str(),
                          Command(number).c_str());
        (void)std::fflush(stdout);
        if (!m_options.keepFolder.empty()) {
            m_image.Save(m_options.keepFolder);
            std::ofstream trace(m_options.keepFolder + "/changes.txt");
            for (const Change& change : m_changes) {
                trace << Describe(change) << '\n';
            }
        }
    }

    const Family& m_family;
    const Options& m_options;
    const u64 m_casesMax;
    const Clock::time_point m_start = Clock::now();
    Watchdog m_watchdog;
    u64 m_group = 0;
    DiskImage m_image;
    Changes m_changes;
    u64 m_cases = 0;
    u64 m_failed = 0;
    u64 m_groups = 0;
    double m_secondsTaken = 0;
    std::map<std::string, u64> m_counters;
};

std::string Runner::Summary() const {
    char seconds[32];
    (void)std::snprintf(seconds, sizeof seconds, "%.1f", m_secondsTaken);
    std::string text = m_family.name + ": " + std::to_string(m_cases) + " cases, " +
                       std::to_string(m_failed) + " failed";
    for (const auto& [what, count] : m_counters) {
        text += ", " + std::to_string(count) + " " + what;
    }
    return text + "; " + std::to_string(m_groups) + " groups, seed " +
           std::to_string(m_options.seed) + ", " + seconds + " s";
}

std::string Runner::Json() const {
    const auto number = [](const char* name, auto value) {
        return std::string(", \"") + name + "\": " + std::to_string(value);
    };
    std::string text = "{\"family\": \"" + m_family.name + "\", \"title\": \"" + m_family.title +
                       "\"" + number("seed", m_options.seed) + number("cases", m_cases) +
                       number("failed", m_failed) + number("groups", m_groups) +
                       number("seconds", m_secondsTaken) + ", \"counters\": {";
    const char* separator = "\"";
    for (const auto& [what, count] : m_counters) {
        text += separator + what + "\": " + std::to_string(count);
        separator = ", \"";
    }
    return text + "}}";
}

// --- The command line

void Declare(CLI::App& app, Options& options) {
    app.footer(kFooter);
    app.add_option("--family", options.families, "run this family; again for more; all without it");
    app.add_option("--seed", options.seed, "everything follows from it")->capture_default_str();
    app.add_option("--count", options.count,
                   "cases of each family; the family's own number without it");
    app.add_option("--divide", options.divisor, "run only this part of the family's own number")
        ->check(CLI::Range(1, 1000000))
        ->capture_default_str();
    app.add_option("--only", options.only, "run one group, or one case of it, as 12 or 12.345");
    app.add_option("--minutes", options.minutesMax,
                   "run each family that long, however many cases that are");
    app.add_option("--shard", options.shardText, "as 0/2 and 1/2: take every second group")
        ->capture_default_str();
    app.add_flag("--stop-at-failure", options.stopsAtFailure,
                 "end a family with a case that fails");
    app.add_option("--json", options.json, "write the numbers to this file");
    app.add_option("--keep", options.keepFolder,
                   "an existing folder for the files of a failing case");
    app.add_flag("--list", options.list, "print the families and what each is about");
}

// "a<separator>b", or "a" where *second stays empty.
bool ParseNumbers(const std::string& text, char separator, u64* first, std::optional<u64>* second) {
    const std::size_t at = text.find(separator);
    try {
        std::size_t used = 0;
        *first = std::stoull(text, &used);
        if (at != std::string::npos) {
            *second = std::stoull(text.substr(at + 1));
        }
        return used == std::min(at, text.size());
    } catch (const std::exception&) {
        return false;
    }
}

bool Complete(Options& options) {
    std::optional<u64> shards;
    if (!ParseNumbers(options.shardText, '/', &options.shard, &shards) ||
        options.shard >= shards.value_or(0)) {
        (void)std::fprintf(stderr, "--shard wants numbers like 0/2\n");
        return false;
    }
    options.shards = *shards;
    u64 group = 0;
    if (!options.only.empty()) {
        if (!ParseNumbers(options.only, '.', &group, &options.onlyCase)) {
            (void)std::fprintf(stderr, "--only wants numbers like 12 or 12.345\n");
            return false;
        }
        options.onlyGroup = group;
    }
    return true;
}

// The families that are asked for, in the order of their names; nothing when one is unknown.
std::vector<Family> FamiliesOf(const std::vector<std::string>& names) {
    std::vector<Family> families = Table();
    std::sort(families.begin(), families.end(),
              [](const Family& a, const Family& b) { return a.name < b.name; });
    if (!names.empty()) {
        std::erase_if(families, [&](const Family& family) {
            return std::find(names.begin(), names.end(), family.name) == names.end();
        });
    }
    if (families.size() < names.size()) {
        (void)std::fprintf(stderr, "no such family; --list shows them\n");
        families.clear();
    }
    return families;
}

int RunFamilies(const Options& options) {
    const std::vector<Family> families = FamiliesOf(options.families);
    std::string json;
    u64 failed = 0;
    for (const Family& family : families) {
        Runner runner(family, options);
        runner.Run();
        failed += runner.Failed();
        json += (json.empty() ? "[" : ",\n ") + runner.Json();
        (void)std::printf("%s\n", runner.Summary().c_str());
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
        for (const Family& family : FamiliesOf({})) {
            (void)std::printf("%-20s %s (%s cases)\n", family.name.c_str(), family.title.c_str(),
                              std::to_string(family.cases).c_str());
        }
        return 0;
    }
    model::KeepQuiet();
    return RunFamilies(options);
}

}  // namespace

RegisteredFamily::RegisteredFamily(const Family& family) {
    Table().push_back(family);
}

}  // namespace k9erepl::reliability

int main(int argc, char** argv) {
    try {
        return k9erepl::reliability::Main(argc, argv);
    } catch (const std::exception& error) {
        (void)std::fprintf(stderr, "reliability_run: %s\n", error.what());
        return 1;
    }
}
