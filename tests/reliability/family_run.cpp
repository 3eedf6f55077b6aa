// Counting, reporting, and a watch over cases that crash or hang; see the header.
#include "reliability/family_run.h"

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
#include <mutex>
#include <string>
#include <thread>

namespace k9erepl::reliability {

namespace {

constexpr u64 kFailuresPrintedMax = 10;
constexpr u64 kEmptyGroupsMax = 1000;

using Clock = std::chrono::steady_clock;

std::vector<Family>& Table() {
    static std::vector<Family> families;
    return families;
}

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

constexpr std::chrono::seconds kLongest{120};
constexpr std::array kFatal = {SIGSEGV, SIGABRT, SIGFPE, SIGILL};

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

// While it lives a fatal signal, or a case that takes longer than two minutes, prints the command
// that replays the case, and ends the process. One at a time.
class Watchdog {
  public:
    Watchdog() : m_thread([this] { Watch(); }) {
        for (const int number : kFatal) {
            (void)std::signal(number, &OnSignal);
        }
    }
    ~Watchdog() {
        {
            const std::lock_guard lock(m_mutex);
            m_end = true;
        }
        m_ended.notify_all();
        m_thread.join();
        for (const int number : kFatal) {
            (void)std::signal(number, SIG_DFL);
        }
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    void Running(const std::string& command) {
        std::strncpy(g_command.data(), command.c_str(), g_command.size() - 1);
        ++m_case;
    }

  private:
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

class Runner final : public GroupRun {
  public:
    Runner(const Family& family, const FamilyRequest& request)
        : m_family(family), m_request(request), m_casesMax(CasesMax(request)) {
        m_result.name = family.name;
        m_result.title = family.title;
        m_result.seed = request.seed;
    }

    FamilyResult Run() {
        if (m_request.onlyGroup) {
            RunGroup(*m_request.onlyGroup);
        } else {
            RunGroups();
        }
        m_result.seconds = SecondsSince(m_start);
        return m_result;
    }

    u64 Seed() const override { return Mix(m_request.seed, m_group + 1); }
    u64 Number() const override { return m_group; }
    bool Wants(u64 number) const override {
        return m_request.onlyCase ? number == *m_request.onlyCase : !Enough();
    }
    bool Enough() const override {
        return (m_casesMax > 0 && m_result.cases >= m_casesMax) || TimeIsUp();
    }
    void Count(const std::string& what, u64 by) override { m_result.counters[what] += by; }
    void Keep(const DiskImage& image, const Changes& changes, std::size_t done) override {
        if (!m_request.keepFolder.empty()) {
            m_image = image;
            m_changes.assign(changes.begin(), changes.begin() + static_cast<std::ptrdiff_t>(done));
        }
    }

    void Case(u64 number, const std::function<std::string()>& check) override {
        if (!Wants(number)) {
            return;
        }
        m_watchdog.Running(Command(number));
        ++m_result.cases;
        std::string problem;
        try {
            problem = check();
        } catch (const std::exception& error) {
            problem = std::string("exception ") + error.what();
        }
        if (!problem.empty()) {
            Fail(number, problem);
        }
    }

  private:
    static u64 CasesMax(const FamilyRequest& request) {
        return request.onlyGroup ? 0 : (request.cases + request.shards - 1) / request.shards;
    }

    void RunGroups() {
        u64 empty = 0;
        for (u64 group = m_request.shard; !Enough() && empty < kEmptyGroupsMax;
             group += m_request.shards) {
            const u64 before = m_result.cases;
            RunGroup(group);
            empty = m_result.cases == before ? empty + 1 : 0;
        }
    }

    void RunGroup(u64 group) {
        m_group = group;
        m_watchdog.Running(Command({}));
        ++m_result.groups;
        m_family.runGroup(*this);
    }

    bool TimeIsUp() const {
        return m_request.minutesMax > 0 && SecondsSince(m_start) > m_request.minutesMax * 60;
    }

    std::string Command(std::optional<u64> number) const {
        return "reliability_run --family " + m_family.name + " --seed " +
               std::to_string(m_request.seed) + " --only " + std::to_string(m_group) +
               (number ? "." + std::to_string(*number) : "");
    }

    void Fail(u64 number, const std::string& problem) {
        if (++m_result.failed > kFailuresPrintedMax) {
            return;
        }
        (void)std::printf("FAILED %s, seed %s: %s\n  replay: %s\n", m_family.name.c_str(),
                          std::to_string(m_request.seed).c_str(), problem.c_str(),
                          Command(number).c_str());
        (void)std::fflush(stdout);
        if (!m_request.keepFolder.empty()) {
            m_image.Save(m_request.keepFolder);
            std::ofstream trace(m_request.keepFolder + "/changes.txt");
            for (const Change& change : m_changes) {
                trace << Describe(change) << '\n';
            }
        }
    }

    const Family& m_family;
    const FamilyRequest& m_request;
    const u64 m_casesMax;
    const Clock::time_point m_start = Clock::now();
    Watchdog m_watchdog;
    u64 m_group = 0;
    DiskImage m_image;
    Changes m_changes;
    FamilyResult m_result;
};

std::string Quoted(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : text) {
        quoted += c == '"' || c == '\\' ? std::string("\\") + c : std::string(1, c);
    }
    return quoted + "\"";
}

}  // namespace

RegisteredFamily::RegisteredFamily(const Family& family) {
    Table().push_back(family);
}

std::vector<Family> AllFamilies() {
    std::vector<Family> families = Table();
    std::sort(families.begin(), families.end(),
              [](const Family& a, const Family& b) { return a.name < b.name; });
    return families;
}

FamilyResult RunFamily(const Family& family, const FamilyRequest& request) {
    return Runner(family, request).Run();
}

std::string Summary(const FamilyResult& result) {
    char seconds[32];
    (void)std::snprintf(seconds, sizeof seconds, "%.1f", result.seconds);
    std::string text = result.name + ": " + std::to_string(result.cases) + " cases, " +
                       std::to_string(result.failed) + " failed";
    for (const auto& [what, count] : result.counters) {
        text += ", " + std::to_string(count) + " " + what;
    }
    return text + "; " + std::to_string(result.groups) + " groups, seed " +
           std::to_string(result.seed) + ", " + seconds + " s";
}

std::string Json(const FamilyResult& result) {
    std::string text = "{\"family\": " + Quoted(result.name) +
                       ", \"title\": " + Quoted(result.title) +
                       ", \"seed\": " + std::to_string(result.seed) +
                       ", \"cases\": " + std::to_string(result.cases) +
                       ", \"failed\": " + std::to_string(result.failed) +
                       ", \"groups\": " + std::to_string(result.groups) +
                       ", \"seconds\": " + std::to_string(result.seconds) + ", \"counters\": {";
    const char* separator = "";
    for (const auto& [what, count] : result.counters) {
        text += separator + Quoted(what) + ": " + std::to_string(count);
        separator = ", ";
    }
    return text + "}}";
}

}  // namespace k9erepl::reliability
