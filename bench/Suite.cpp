// SPDX-License-Identifier: Apache-2.0
#include "Suite.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <utility>

namespace bench {
namespace {

constexpr int kRepetitions = 9;

// "12.3 µs"
std::string timeText(double seconds) {
  const auto [factor, unit] = seconds < 1e-6   ? std::pair{1e9, "ns"}
                              : seconds < 1e-3 ? std::pair{1e6, "µs"}
                              : seconds < 1    ? std::pair{1e3, "ms"}
                                               : std::pair{1.0, "s"};
  char text[32];
  std::snprintf(text, sizeof text, "%.*f %s", seconds * factor < 10 ? 2 : 1, seconds * factor, unit);
  return text;
}

bool keeps(double value, double bound) { return bound == Suite::kNoBound || (value > 0 && value <= bound); }

std::string boundText(double value, double bound) {
  if (bound == Suite::kNoBound) return "";
  char text[32];
  std::snprintf(text, sizeof text, "%g", bound);
  return std::string(text) + (keeps(value, bound) ? "" : " NOT KEPT");
}

}  // namespace

// Keeps the fastest repetition of each benchmark, and prints none but those that failed.
class Suite::Reporter : public benchmark::ConsoleReporter {
 public:
  explicit Reporter(std::map<std::string, double>& fastest) : ConsoleReporter(OO_None), mFastest(fastest) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    std::vector<Run> failed;
    for (const Run& run : runs) {
      if (run.error_occurred) failed.push_back(run);
      if (run.error_occurred || run.run_type != Run::RT_Iteration || run.iterations == 0) continue;
      const double seconds = run.real_accumulated_time / static_cast<double>(run.iterations);
      const auto [known, isNew] = mFastest.emplace(run.run_name.function_name, seconds);
      if (!isNew) known->second = std::min(known->second, seconds);
    }
    if (!failed.empty()) ConsoleReporter::ReportRuns(failed);
  }

 private:
  std::map<std::string, double>& mFastest;
};

void Suite::pair(const std::string& name, double bound, Repetition library, Repetition bare) {
  add(name + "/library", std::move(library));
  add(name + "/bare", std::move(bare));
  mPairs.push_back({name, bound});
}

void Suite::growth(const std::string& first, const std::string& second, double bound) {
  mGrowth.push_back({first, second, bound});
}

void Suite::figure(const std::string& name, double value, const std::string& unit, double bound) {
  mFigures.push_back({name, value, unit, bound});
}

void Suite::add(const std::string& name, Repetition repetition) {
  benchmark::RegisterBenchmark(name.c_str(),
                               [repetition = std::move(repetition)](benchmark::State& state) {
                                 for (auto _ : state) {
                                   try {
                                     state.SetIterationTime(repetition());
                                   } catch (const std::runtime_error& error) {
                                     state.SkipWithError(error.what());
                                   }
                                 }
                               })
      ->UseManualTime()
      ->Iterations(1)
      ->Repetitions(kRepetitions);
}

bool Suite::run(std::vector<std::string> arguments) {
  // Library and bare take turns, so that a slow moment of the machine meets both.
  arguments.emplace_back("--benchmark_enable_random_interleaving=true");
  std::vector<char*> pointers;
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  int count = static_cast<int>(pointers.size());
  benchmark::Initialize(&count, pointers.data());
  Reporter reporter(mFastest);
  if (!mPairs.empty()) benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::ClearRegisteredBenchmarks();
  const bool pairs = printPairs();
  const bool growth = printGrowth();
  const bool figures = printFigures();
  return pairs && growth && figures;
}

double Suite::fastest(const std::string& name) const {
  const auto found = mFastest.find(name);
  return found == mFastest.end() ? 0 : found->second;
}

bool Suite::printPairs() const {
  bool kept = true;
  if (mFastest.empty()) return kept;
  std::printf("\n| measured | library | bare calls | ratio | bound |\n|---|---|---|---|---|\n");
  for (const Pair& pair : mPairs) {
    const double library = fastest(pair.name + "/library");
    const double bare = fastest(pair.name + "/bare");
    if (library == 0 && bare == 0) continue;  // left out by a filter
    const double ratio = bare > 0 ? library / bare : 0;
    std::printf("| %s | %s | %s | %.3f | %s |\n", pair.name.c_str(), timeText(library).c_str(), timeText(bare).c_str(),
                ratio, boundText(ratio, pair.bound).c_str());
    kept = kept && keeps(ratio, pair.bound);
  }
  return kept;
}

bool Suite::printGrowth() const {
  bool kept = true;
  if (mFastest.empty() || mGrowth.empty()) return kept;
  std::printf("\n| from | to | the library takes | bound |\n|---|---|---|---|\n");
  for (const Growth& growth : mGrowth) {
    const double first = fastest(growth.first + "/library");
    const double second = fastest(growth.second + "/library");
    if (first == 0 || second == 0) continue;
    std::printf("| %s | %s | %.2f times as long | %s |\n", growth.first.c_str(), growth.second.c_str(), second / first,
                boundText(second / first, growth.bound).c_str());
    kept = kept && keeps(second / first, growth.bound);
  }
  return kept;
}

bool Suite::printFigures() const {
  bool kept = true;
  if (mFigures.empty()) return kept;
  std::printf("\n| figure | value | bound |\n|---|---|---|\n");
  for (const Figure& figure : mFigures) {
    std::printf("| %s | %.*f %s | %s |\n", figure.name.c_str(), figure.value < 10 ? 2 : 0, figure.value,
                figure.unit.c_str(), boundText(figure.value, figure.bound).c_str());
    kept = kept && keeps(figure.value, figure.bound);
  }
  return kept;
}

}  // namespace bench
