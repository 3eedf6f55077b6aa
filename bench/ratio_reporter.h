// After Google Benchmark's own table, prints the speed of each benchmark as a ratio to the baseline
// of the same program. On a noisy machine only ratios within one run mean something.
#ifndef K9EREPL_BENCH_RATIO_REPORTER_H
#define K9EREPL_BENCH_RATIO_REPORTER_H

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace k9erepl::bench {

class RatioReporter : public benchmark::ConsoleReporter {
  public:
    // `baseline` is the name of the benchmark whose items per second count as 1.
    explicit RatioReporter(std::string baseline) : m_baseline(std::move(baseline)) {}

    void ReportRuns(const std::vector<Run>& reports) override;
    void Finalize() override;

  private:
    const std::string m_baseline;
    // By the name of the benchmark: one value for each of its runs, in their order.
    std::map<std::string, std::vector<double>> m_itemsPerSecond;
};

// The main function of every benchmark program. Returns its exit status.
int RunWithRatios(int argc, char** argv, const char* baseline);

}  // namespace k9erepl::bench

#endif  // K9EREPL_BENCH_RATIO_REPORTER_H
