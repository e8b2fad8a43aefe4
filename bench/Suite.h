// SPDX-License-Identifier: Apache-2.0
//
// What is measured, and what it may cost: pairs of the library against the bare system calls over the same, which take
// turns, and figures on their own. Printed as tables, in the form of docs/performance.md.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace bench {

// One repetition: the seconds of what counts. Throws std::runtime_error when it cannot be done.
using Repetition = std::function<double()>;

class Stopwatch {
 public:
  double seconds() const { return std::chrono::duration<double>(Clock::now() - mStart).count(); }

 private:
  using Clock = std::chrono::steady_clock;
  Clock::time_point mStart = Clock::now();
};

class Suite {
 public:
  static constexpr double kNoBound = 0;

  // `library` may take `bound` times as long as `bare`, by the fastest of their repetitions.
  void pair(const std::string& name, double bound, Repetition library, Repetition bare);
  // Of two pairs, the library's second may take `bound` times as long as its first.
  void growth(const std::string& first, const std::string& second, double bound);
  // A figure that was found, and the most that it may be.
  void figure(const std::string& name, double value, const std::string& unit, double bound = kNoBound);

  // Runs the pairs and prints everything; true when every bound is kept. `arguments` are google-benchmark's.
  bool run(std::vector<std::string> arguments);

 private:
  struct Pair {
    std::string name;
    double bound;
  };
  struct Growth {
    std::string first, second;
    double bound;
  };
  struct Figure {
    std::string name;
    double value;
    std::string unit;
    double bound;
  };
  class Reporter;

  void add(const std::string& name, Repetition repetition);
  bool printPairs() const;
  bool printGrowth() const;
  bool printFigures() const;
  double fastest(const std::string& name) const;

  std::vector<Pair> mPairs;
  std::vector<Growth> mGrowth;
  std::vector<Figure> mFigures;
  std::map<std::string, double> mFastest;  // seconds, by benchmark
};

}  // namespace bench
