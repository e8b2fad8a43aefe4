// SPDX-License-Identifier: Apache-2.0
#include "RatioReporter.h"

#include <algorithm>
#include <cstdio>

namespace bench {

void RatioReporter::ReportRuns(const std::vector<Run>& runs) {
  std::vector<Run> shown;
  for (const Run& run : runs) {
    const std::string& name = run.run_name.function_name;
    const bool paired = name.find('/') != std::string::npos;
    if (!paired || run.error_occurred) shown.push_back(run);
    if (paired && run.run_type == Run::RT_Iteration && !run.error_occurred && run.iterations > 0) {
      mSeconds[name].push_back(run.real_accumulated_time / static_cast<double>(run.iterations));
    }
  }
  if (!shown.empty()) ConsoleReporter::ReportRuns(shown);
}

RatioReporter::Spread RatioReporter::spread(const std::string& name) const {
  const auto found = mSeconds.find(name);
  if (found == mSeconds.end()) return {0, 0};
  std::vector<double> sorted = found->second;
  std::sort(sorted.begin(), sorted.end());
  return {sorted.front(), sorted[sorted.size() / 2]};
}

bool RatioReporter::printRatios() {
  bool kept = true;
  std::printf("\n%-32s %26s %26s %8s %8s\n", "against the bare system calls", "library (median)", "bare (median)",
              "ratio", "bound");
  for (const auto& [pair, bound] : mBounds) {
    const Spread library = spread(pair + "/library");
    const Spread bare = spread(pair + "/bare");
    const bool holds = library.fastest > 0 && bare.fastest > 0 && library.fastest <= bound * bare.fastest;
    std::printf("%-32s %12.1f (%8.1f) ms %12.1f (%8.1f) ms %8.3f %8.2f%s\n", pair.c_str(), library.fastest * 1e3,
                library.median * 1e3, bare.fastest * 1e3, bare.median * 1e3, library.fastest / bare.fastest, bound,
                holds ? "" : "  NOT KEPT");
    kept = kept && holds;
  }
  return kept;
}

}  // namespace bench
