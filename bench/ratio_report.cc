#include "ratio_report.h"

#include <unistd.h>

#include <cstdio>
#include <vector>

namespace kesttcs::bench {
namespace {

struct Ratio {
  std::string title;
  std::string service_row;
  std::string reference_row;
  RatioOf measure;
};

std::vector<Ratio>& Ratios() {
  static std::vector<Ratio> ratios;
  return ratios;
}

}  // namespace

bool RegisterRatio(std::string title, std::string service_row, std::string reference_row,
                   RatioOf measure) {
  Ratios().push_back({std::move(title), std::move(service_row), std::move(reference_row), measure});
  return true;
}

RatioReporter::RatioReporter()
    : ConsoleReporter(::isatty(STDOUT_FILENO) ? OO_Defaults : OO_Tabular) {}

void RatioReporter::ReportRuns(const std::vector<Run>& reports) {
  ConsoleReporter::ReportRuns(reports);
  for (const Run& run : reports) {
    if (run.error_occurred || run.iterations == 0) continue;
    const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
    if (run.run_type == Run::RT_Aggregate && !median) continue;
    Figures& row = rows_[run.run_name.str()];
    if (row.median && !median) continue;
    row.median = median;
    row.seconds_per_call =
        run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
    const auto items = run.counters.find("items_per_second");
    row.calls_per_second = items != run.counters.end() ? items->second.value : 0;
  }
}

void RatioReporter::Finalize() {
  ConsoleReporter::Finalize();
  std::printf("\n%-58s %12s %12s %7s\n", "service / best case", "service", "best case", "ratio");
  for (const Ratio& ratio : Ratios()) {
    const auto service = rows_.find(ratio.service_row);
    const auto reference = rows_.find(ratio.reference_row);
    if (service == rows_.end() || reference == rows_.end()) continue;
    if (ratio.measure == RatioOf::kTimePerCall) {
      const double s = service->second.seconds_per_call * 1e6;
      const double r = reference->second.seconds_per_call * 1e6;
      std::printf("%-58s %9.2f us %9.2f us %6.2fx\n", ratio.title.c_str(), s, r, s / r);
    } else {
      const double s = service->second.calls_per_second;
      const double r = reference->second.calls_per_second;
      std::printf("%-58s %8.0f c/s %8.0f c/s %6.2fx\n", ratio.title.c_str(), s, r, s / r);
    }
  }
}

}  // namespace kesttcs::bench
