// SPDX-License-Identifier: Apache-2.0
//
// What the shipped program costs under the emulator: the system calls of `mirelsnap run -- true`, by strace, and a
// driver command against the bare call. Needs root; runs in a world of its own, on loop devices over memory.
#include <fcntl.h>
#include <mirelsnap/DriverInterface.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

#include "LoopVolume.h"
#include "Suite.h"
#include "SystemWorld.h"
#include "World.h"
#include "base/Handle.h"
#include "driver/ControlDevice.h"
#include "driver/DriverCommand.h"

namespace bench {
namespace {

constexpr char kCommandOption[] = "--driver-command";

// --- A driver command; runs under the emulator, and tells seconds of the library and of the bare calls.

template <class Action>
double fastest(const Action& action) {
  constexpr int kTimes = 200;
  double best = 1;
  for (int repetition = 0; repetition < 50; ++repetition) {
    const Stopwatch watch;
    for (int i = 0; i < kTimes; ++i) action();
    best = std::min(best, watch.seconds() / kTimes);
  }
  return best;
}

int measureDriverCommand(const std::string& result) {
  SnapDriverInterface* const driver = SnapDriverInterface::Instance();
  setlogmask(LOG_MASK(LOG_EMERG));
  int count = 0;
  if (driver == nullptr || driver->GetNumOfSnappedVolumes(&count) != 0) return 1;
  DriverCommand command(sizeof(_ioctlCmd) + kDriverTrailerSize + 1, 0);  // as the library sends it
  const double library = fastest([driver, &count] { driver->GetNumOfSnappedVolumes(&count); });
  bool answered = true;
  // Every command finds the driver anew.
  const double bare = fastest([&command, &answered] {
    char number[32];
    const UniqueFd driverFile(open("/proc/mirelsnap/dev", O_RDONLY | O_CLOEXEC));
    answered = read(driverFile.get(), number, sizeof number) > 0 && answered;
    const UniqueFd control(open(kControlNode, O_RDONLY | O_CLOEXEC));
    answered = issueDriverRequest(control.get(), IOC_GET_NUM_OF_SNAPPED_VOLUMES, &command.header()) == 0 && answered;
  });
  if (!answered) return 1;
  std::ofstream(result) << library << ' ' << bare << '\n';
  return 0;
}

void addDriverCommand(Suite& suite, const std::string& self) {
  const test::TempDir folder;
  const std::string result = folder / "result";
  if (test::run({EMULATOR_PROGRAM, "--", self, kCommandOption, result}) != 0)
    throw std::runtime_error("the driver command failed");
  double library = 0, bare = 0;
  std::ifstream(result) >> library >> bare;
  suite.figure("driver command, bare", bare * 1e6, "µs");
  suite.figure("driver command, what the library adds", (library - bare) * 1e6, "µs", 10);
}

// --- The system calls of a run.

struct Calls {
  std::map<std::string, double> byName;
  std::map<std::string, double> opens;  // by path, of what the kernel tells
  double all = 0;
};

Calls callsOfRun(const std::vector<std::unique_ptr<test::Volume>>& volumes) {
  const test::TempDir folder;
  const std::string trace = folder / "calls";
  std::vector<std::string> arguments = {EMULATOR_PROGRAM,  "--", "strace", "-f", "-qq", "-o", trace,
                                        MIRELSNAP_PROGRAM, "run"};
  for (const auto& volume : volumes) arguments.insert(arguments.end(), {"--volume", volume->device()});
  arguments.insert(arguments.end(), {"--", "true"});
  if (test::run(arguments) != 0) throw std::runtime_error("the run failed");
  static const std::regex call(R"(^\d+ +(\w+)\(.*)");
  static const std::regex table("^\\d+ +open\\w*\\([^\"]*\"(/proc/mounts|/proc/self/mountinfo|/proc/meminfo|/dev)\"");
  Calls calls;
  std::ifstream lines(trace);
  std::smatch match;
  for (std::string line; std::getline(lines, line);) {
    if (!std::regex_match(line, match, call)) continue;  // the rest of a call, a signal
    ++calls.byName[match[1]];
    ++calls.all;
    if (std::regex_search(line, match, table)) ++calls.opens[match[1]];
  }
  return calls;
}

void addRuns(Suite& suite) {
  std::vector<std::unique_ptr<test::Volume>> volumes;
  std::size_t countBefore = 0;
  Calls before;
  for (const std::size_t count : {std::size_t{1}, std::size_t{4}, std::size_t{16}, std::size_t{64}}) {
    while (volumes.size() < count) volumes.push_back(std::make_unique<test::Volume>("ext4", 64 << 20));
    const Calls calls = callsOfRun(volumes);
    const std::string name = "mirelsnap run -- true, volumes: " + std::to_string(count);
    suite.figure(name + ", system calls a volume", calls.all / static_cast<double>(count), "");
    for (const auto& [path, opens] : calls.opens)
      suite.figure(name + ", opens of " + path + " a volume", opens / static_cast<double>(count), "");
    if (count == 64) {
      const auto more = static_cast<double>(count - countBefore);
      for (const auto& [call, times] : calls.byName) {
        const auto known = before.byName.find(call);
        const double each = (times - (known == before.byName.end() ? 0 : known->second)) / more;
        if (each >= 1) suite.figure("each further volume, " + call, each, "");
      }
    }
    before = calls;
    countBefore = count;
  }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], bench::kCommandOption) == 0) return bench::measureDriverCommand(argv[2]);
  const std::string self = std::filesystem::read_symlink("/proc/self/exe");
  test::laySystemWorld();
  bench::Suite suite;
  bench::addDriverCommand(suite, self);
  bench::addRuns(suite);
  return suite.run({argv, argv + argc}) ? 0 : 1;
}
