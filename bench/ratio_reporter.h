// Prints, behind Google Benchmark's own table, each row's speed as a ratio to the baseline row of
// the same program. Only ratios of one run mean something on a noisy machine.
#ifndef K9EREPL_BENCH_RATIO_REPORTER_H
#define K9EREPL_BENCH_RATIO_REPORTER_H

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace k9erepl::bench {

class RatioReporter : public benchmark::ConsoleReporter {
  public:
    // `baseline` is the name of the benchmark whose items a second count as 1.
    explicit RatioReporter(std::string baseline) : m_baseline(std::move(baseline)) {}

    void ReportRuns(const std::vector<Run>& reports) override;
    void Finalize() override;

  private:
    const std::string m_baseline;
    std::map<std::string, std::vector<double>> m_itemsPerSecond;  // by benchmark
};

// The main function of every benchmark program.
int RunWithRatios(int argc, char** argv, const char* baseline);

}  // namespace k9erepl::bench

#endif  // K9EREPL_BENCH_RATIO_REPORTER_H
