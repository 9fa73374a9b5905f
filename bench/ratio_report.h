// Ratios between rows of one benchmark run, printed after the run: each registered pair compares
// a row of the service with its best-case reference row. A row's figure is the median of its
// repetitions when it was repeated (--benchmark_repetitions), else its one run.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>

namespace kesttcs::bench {

enum class RatioOf {
  kTimePerCall,    // the service's time per call over the reference's (lower is better)
  kCallsPerSecond  // the service's calls per second over the reference's (higher is better)
};

// Registers a ratio of two rows, named as the run names them ("Name/arg:0/real_time/threads:1").
// Returns true so that it can initialise a static at namespace scope.
bool RegisterRatio(std::string title, std::string service_row, std::string reference_row,
                   RatioOf measure);

// The console report with the registered ratios after it.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  // Coloured only on a terminal.
  RatioReporter();
  void ReportRuns(const std::vector<Run>& reports) override;
  void Finalize() override;

 private:
  struct Figures {
    double seconds_per_call = 0;
    double calls_per_second = 0;
    bool median = false;
  };
  std::map<std::string, Figures> rows_;
};

}  // namespace kesttcs::bench
