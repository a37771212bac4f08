// A console reporter that also keeps each benchmark's CPU time (steadier than wall time on a
// shared machine), so that a program can close with the ratios of its measurements to their
// baselines, run in the same process. Run with --benchmark_repetitions=5 for steady ratios.
#ifndef COLLOQUY_BENCH_RATIO_REPORT_H
#define COLLOQUY_BENCH_RATIO_REPORT_H

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace benchratio {

struct cComparison {
    std::string measured;
    std::string baseline;
    std::string target;  // e.g. "<= 1.5", or "-" when there is none
};

class cReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(std::vector<Run> const& runs) override {
        // With --benchmark_repetitions, the fastest repetition: the one least disturbed by others.
        for (Run const& run : runs) {
            if (run.run_type != Run::RT_Iteration) continue;
            auto const [entry, added] = mTimes.emplace(run.benchmark_name(), run.GetAdjustedCPUTime());
            if (!added) entry->second = std::min(entry->second, run.GetAdjustedCPUTime());
        }
        ConsoleReporter::ReportRuns(runs);
    }
    // Prints "measured / baseline = ratio" for each comparison that ran.
    void printRatios(std::vector<cComparison> const& comparisons) const {
        for (cComparison const& c : comparisons) {
            auto const m = mTimes.find(c.measured), b = mTimes.find(c.baseline);
            if (m == mTimes.end() || b == mTimes.end() || b->second <= 0) continue;
            std::printf("ratio %-26s / %-26s = %6.2f  (target %s)\n", c.measured.c_str(), c.baseline.c_str(),
                        m->second / b->second, c.target.c_str());
        }
    }

  private:
    std::map<std::string, double> mTimes;
};

// Runs the benchmarks selected on the command line and prints the ratios.
inline int runWithRatios(int argc, char** argv, std::vector<cComparison> const& comparisons) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    cReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printRatios(comparisons);
    benchmark::Shutdown();
    return 0;
}

}  // namespace benchratio

#endif
