// The benchmarks' main: the console report, then the ratios of the service's rows to their
// best-case reference rows (ratio_report.h).
#include <benchmark/benchmark.h>

#include "ratio_report.h"

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  kesttcs::bench::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
