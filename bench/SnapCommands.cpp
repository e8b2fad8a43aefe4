// SPDX-License-Identifier: Apache-2.0
#include <mirelsnap/DriverInterface.h>

#include <algorithm>
#include <cstdio>
#include <list>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Interposed.h"
#include "LoopVolume.h"
#include "Rows.h"

namespace bench {
namespace {

constexpr unsigned int kBlock = 1024;
constexpr std::uint64_t kGiB = 1ULL << 30;

struct Cost {
  double seconds;
  double bytes;
};

// Of one command for the volumes, each with so many runs.
Cost snap(const std::vector<std::unique_ptr<test::Volume>>& volumes, unsigned int runs) {
  std::list<SnapVolumeInformation> request;
  for (const auto& volume : volumes)
    request.emplace_back(kBlock, 2 * kGiB / kBlock, volume->wdevice(), runs, volume->wfolder(), false, true, 0U);
  std::list<std::wstring> names;
  const std::size_t before = heapInUse();
  const Stopwatch watch;
  if (SnapDriverInterface::mInstance->SnapVolume(&request, &names) != 0) throw std::runtime_error("not snapped");
  const Cost cost{watch.seconds(), static_cast<double>(interposed.heapAtSnap - before)};
  if (interposed.lengthAtSnap != 27 + volumes.size() * (2160 + std::size_t{16} * runs))
    throw std::runtime_error("not the runs that were asked for");
  SnapDriverInterface::mInstance->cleanRelocFiles(&request);
  return cost;
}

Cost cheapest(const std::vector<std::unique_ptr<test::Volume>>& volumes, unsigned int runs) {
  Cost best = snap(volumes, runs);
  for (int i = 0; i < 2; ++i) {
    const Cost cost = snap(volumes, runs);
    best = {std::min(best.seconds, cost.seconds), std::min(best.bytes, cost.bytes)};
  }
  return best;
}

void addVolumes(std::vector<std::unique_ptr<test::Volume>>& volumes, std::size_t count) {
  while (volumes.size() < count) {
    volumes.push_back(std::make_unique<test::Volume>("ext4", volumes.empty() ? 2 * kGiB : kGiB / 64,
                                                     std::vector<std::string>{"-b", "1024"}));
  }
}

}  // namespace

Kept addSnapCommands(Suite& suite) {
  std::vector<std::unique_ptr<test::Volume>> volumes;
  addVolumes(volumes, 1);
  interposed.scatter = true;
  interposed.allocate = false;
  for (const unsigned int runs : {1U, 10000U, 1000000U}) {
    const Cost cost = cheapest(volumes, runs);
    const std::string name = "snap command of 1 volume, runs: " + std::to_string(runs);
    suite.figure(name, cost.seconds * 1e3, "ms");
    if (runs > 1) suite.figure(name + ", time a run", cost.seconds / runs * 1e6, "µs", 1);
    if (runs > 1) suite.figure(name + ", memory a run", cost.bytes / runs, "bytes", 6 * 16);
  }
  double secondsAVolume = 0;
  for (const std::size_t count : {std::size_t{1}, std::size_t{16}, std::size_t{256}}) {
    addVolumes(volumes, count);
    const Cost cost = cheapest(volumes, 1);
    suite.figure("snap command, volumes: " + std::to_string(count) + ", time a volume",
                 cost.seconds / static_cast<double>(count) * 1e3, "ms", secondsAVolume * 1e3 * 1.5);
    secondsAVolume = cost.seconds / static_cast<double>(count);
  }
  interposed.scatter = false;
  interposed.allocate = true;
  return nullptr;
}

}  // namespace bench
