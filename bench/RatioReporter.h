// SPDX-License-Identifier: Apache-2.0
//
// Prints pairs of benchmarks as ratios: "NAME/library" against "NAME/bare", by the fastest of their repetitions, and
// tells whether each keeps its bound.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace bench {

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  RatioReporter() : ConsoleReporter(OO_None) {}

  // A pair may cost at most `bound` times the bare one.
  void expectRatio(const std::string& pair, double bound) { mBounds[pair] = bound; }

  void ReportRuns(const std::vector<Run>& runs) override;
  // The ratios; true when every bound is kept.
  bool printRatios();

 private:
  struct Spread {
    double fastest;
    double median;
  };
  // Of the repetitions of one benchmark, in seconds.
  Spread spread(const std::string& name) const;

  std::map<std::string, double> mBounds;
  std::map<std::string, std::vector<double>> mSeconds;  // by benchmark, one a repetition
};

}  // namespace bench
