// Prints the table of ratios; see the header.
#include "ratio_reporter.h"

#include <algorithm>
#include <cstdio>
#include <ostream>

namespace k9erepl::bench {

namespace {

double Median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

double Best(const std::vector<double>& values) {
    return *std::max_element(values.begin(), values.end());
}

}  // namespace

void RatioReporter::ReportRuns(const std::vector<Run>& reports) {
    ConsoleReporter::ReportRuns(reports);
    for (const Run& run : reports) {
        const auto items = run.counters.find("items_per_second");
        if (run.run_type == Run::RT_Iteration && items != run.counters.end()) {
            m_itemsPerSecond[run.run_name.function_name].push_back(items->second);
        }
    }
}

void RatioReporter::Finalize() {
    const auto baseline = m_itemsPerSecond.find(m_baseline);
    if (baseline == m_itemsPerSecond.end()) {
        return;
    }
    const double unit = Median(baseline->second);
    const double bestUnit = Best(baseline->second);
    GetOutputStream() << "\nmillion records a second and ratio to " << m_baseline
                      << ": medians, then best runs\n";
    for (const auto& [name, speeds] : m_itemsPerSecond) {
        const double speed = Median(speeds);
        const double best = Best(speeds);
        char line[160];
        std::snprintf(line, sizeof(line), "%-40s %10.2f %8.2f %10.2f %8.2f\n", name.c_str(),
                      speed / 1e6, speed / unit, best / 1e6, best / bestUnit);
        GetOutputStream() << line;
    }
}

int RunWithRatios(int argc, char** argv, const char* baseline) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    RatioReporter reporter(baseline);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}

}  // namespace k9erepl::bench
