// SPDX-License-Identifier: Apache-2.0
#include "RatioReporter.h"

#include <algorithm>
#include <cstdio>

namespace bench {

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

void RatioReporter::ReportRuns(const std::vector<Run>& runs) {
  for (const Run& run : runs) {
    if (run.run_type != Run::RT_Iteration || run.error_occurred || run.iterations == 0) continue;
    mSeconds[run.run_name.function_name].push_back(run.real_accumulated_time / static_cast<double>(run.iterations));
  }
  ConsoleReporter::ReportRuns(runs);
}

bool RatioReporter::printRatios() {
  bool kept = true;
  std::printf("\n%-40s %12s %12s %8s %8s\n", "against the bare system calls", "library", "bare", "ratio", "bound");
  for (const auto& [pair, bound] : mBounds) {
    const auto library = mSeconds.find(pair + "/library");
    const auto bare = mSeconds.find(pair + "/bare");
    if (library == mSeconds.end() || bare == mSeconds.end()) {
      std::printf("%-40s was not measured\n", pair.c_str());
      kept = false;
      continue;
    }
    const double ours = median(library->second);
    const double theirs = median(bare->second);
    std::printf("%-40s %9.1f ms %9.1f ms %8.3f %8.2f%s\n", pair.c_str(), ours * 1e3, theirs * 1e3, ours / theirs, bound,
                ours / theirs <= bound ? "" : "  NOT KEPT");
    kept = kept && ours / theirs <= bound;
  }
  return kept;
}

}  // namespace bench
