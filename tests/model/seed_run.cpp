// Running, shrinking and reporting; see the header.
#include "model/seed_run.h"

#include <k9sys/k9sys.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>

#include "model/runner.h"
#include "support/temp_folder.h"

namespace k9erepl::model {

namespace {

constexpr u32 kShrinkRunsMax = 2000;

// Takes a number off the front of `text`.
bool TakeNumber(std::string_view& text, std::size_t* number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *number);
    if (error != std::errc{}) {
        return false;
    }
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return true;
}

bool TakeRange(std::string_view& text, std::vector<std::size_t>* numbers) {
    std::size_t first = 0;
    if (!TakeNumber(text, &first)) {
        return false;
    }
    std::size_t last = first;
    if (text.starts_with('-')) {
        text.remove_prefix(1);
        if (!TakeNumber(text, &last)) {
            return false;
        }
    }
    if (last < first || (!numbers->empty() && first <= numbers->back())) {
        return false;
    }
    for (std::size_t number = first; number <= last; ++number) {
        numbers->push_back(number);
    }
    return true;
}

std::string WriterOption(const SeedRequest& request) {
    if (!request.async) {
        return "";
    }
    return *request.async ? " --async yes" : " --async no";
}

std::string Report(const SeedRequest& request, const Failure& failure, const Shrunk& shrunk) {
    std::string text = "seed " + std::to_string(request.seed) + ", operation " +
                       std::to_string(ScriptOf(request).at(failure.position).number) + ": " +
                       failure.what + ": " + failure.details + "\nshortened to " +
                       std::to_string(shrunk.script.size()) +
                       " operations: " + shrunk.failure.what + ": " + shrunk.failure.details + "\n";
    for (const Operation& operation : shrunk.script) {
        text += "    " + Describe(operation) + "\n";
    }
    return text + "replay: model_run --seed " + std::to_string(request.seed) + " --operations " +
           std::to_string(request.operations) + WriterOption(request) + " --only " +
           FormatNumbers(shrunk.script) + "\n";
}

// --- Delta debugging with ever smaller chunks

class Shrinker {
  public:
    Shrinker(Shrunk best, const RunScript& run, u32 runsMax)
        : m_best(std::move(best)), m_run(run), m_runsLeft(runsMax) {
        DropWhatFollows();
    }

    Shrunk Work() {
        for (std::size_t chunk = m_best.script.size() / 2; chunk > 0;) {
            const bool removed = RemoveChunks(chunk);
            if (m_runsLeft == 0) {
                break;
            }
            // Single steps again and again until none can go.
            chunk = chunk > 1 ? chunk / 2 : (removed ? 1 : 0);
        }
        return std::move(m_best);
    }

  private:
    void DropWhatFollows() { m_best.script.resize(m_best.failure.position + 1); }

    // Tries chunks from the end on: what comes early is often needed by what comes late.
    bool RemoveChunks(std::size_t chunk) {
        bool removed = false;
        std::size_t end = m_best.script.size();
        while (end > 1 && m_runsLeft > 0) {
            const std::size_t begin = end > chunk ? std::max<std::size_t>(end - chunk, 1) : 1;
            removed = TryWithout(begin, end) || removed;
            end = std::min(begin, m_best.script.size());
        }
        return removed;
    }

    bool TryWithout(std::size_t begin, std::size_t end) {
        Script shorter = m_best.script;
        shorter.erase(shorter.begin() + static_cast<std::ptrdiff_t>(begin),
                      shorter.begin() + static_cast<std::ptrdiff_t>(end));
        --m_runsLeft;
        const std::optional<Failure> failure = m_run(shorter);
        if (!failure || failure->what != m_best.failure.what) {
            return false;
        }
        m_best = {std::move(shorter), *failure};
        DropWhatFollows();
        return true;
    }

    Shrunk m_best;
    const RunScript& m_run;
    u32 m_runsLeft;
};

}  // namespace

Shrunk Shrink(const Script& script, const Failure& failure, const RunScript& run, u32 runsMax) {
    return Shrinker({script, failure}, run, runsMax).Work();
}

void KeepQuiet() {
    if (std::getenv("K9SYS_LOG") == nullptr) {  // NOLINT(concurrency-mt-unsafe): read only
        K9SysSetLogLevel(nullptr, K9SYS_LOG_OFF);
    }
}

std::optional<Failure> RunHere(const Script& script) {
    const test::TempFolder folder;
    return Runner(folder.Path()).Run(script);
}

Script ScriptOf(const SeedRequest& request) {
    Script script = MakeScript(request.seed, request.operations);
    if (!request.only.empty()) {
        std::erase_if(script, [&](const Operation& operation) {
            return !std::binary_search(request.only.begin(), request.only.end(), operation.number);
        });
    }
    for (Operation& operation : script) {
        operation.reopen.settings.async = request.async.value_or(operation.reopen.settings.async);
    }
    return script;
}

std::string RunAndReport(const SeedRequest& request, const RunScript& run) {
    const Script script = ScriptOf(request);
    const std::optional<Failure> failure = run(script);
    if (!failure) {
        return "";
    }
    return Report(request, *failure, Shrink(script, *failure, run, kShrinkRunsMax));
}

std::string FormatNumbers(const Script& script) {
    std::string text;
    for (std::size_t first = 0; first < script.size();) {
        std::size_t last = first;
        while (last + 1 < script.size() && script[last + 1].number == script[last].number + 1) {
            ++last;
        }
        text += (first == 0 ? "" : ",") + std::to_string(script[first].number);
        if (last > first) {
            text += "-" + std::to_string(script[last].number);
        }
        first = last + 1;
    }
    return text;
}

bool ParseNumbers(const std::string& text, std::vector<std::size_t>* numbers) {
    std::string_view left = text;
    while (TakeRange(left, numbers)) {
        if (left.empty()) {
            return true;
        }
        if (!left.starts_with(',')) {
            return false;
        }
        left.remove_prefix(1);
    }
    return false;
}

}  // namespace k9erepl::model
