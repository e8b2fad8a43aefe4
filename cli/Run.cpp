// SPDX-License-Identifier: Apache-2.0
#include "Run.h"

#include <linux/capability.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>

#include <mirelsnap/DriverInterface.h>
#include <nlohmann/json.hpp>

#include "Command.h"
#include "ExposureBase.h"
#include "Failure.h"
#include "SnapshotSet.h"
#include "Terminal.h"
#include "VolumeChoice.h"

namespace fs = std::filesystem;

namespace cli {
namespace {

using nlohmann::json;

void printEngineMessage(unsigned short, const wchar_t* message, void*) {
  std::fprintf(stderr, "mirelsnap: %ls\n", message);
}

// Shows what the library says: the engine's messages and, until the end of the process, those of the layers below it.
class VerboseLibrary {
 public:
  explicit VerboseLibrary(bool wanted) : mWanted(wanted) {
    if (!mWanted) return;
    QX_SetLogHandler(&printEngineMessage, nullptr);
    // The singleton opens the log when it is made; it is made first, so that this opening stands.
    if (SnapDriverInterface::Instance() == nullptr) return;
    openlog("MIRELSNAP_SDK", LOG_PID | LOG_PERROR, LOG_USER);
    setlogmask(LOG_UPTO(LOG_INFO));
  }
  ~VerboseLibrary() {
    if (!mWanted) return;
    if (SnapDriverInterface::mInstance != nullptr) SnapDriverInterface::releaseInstance();
    QX_SetLogHandler(nullptr, nullptr);
  }
  VerboseLibrary(const VerboseLibrary&) = delete;
  VerboseLibrary& operator=(const VerboseLibrary&) = delete;

 private:
  bool mWanted;
};

// What a run comes to: its exit code, what went wrong, and what is told as JSON.
class Report {
 public:
  explicit Report(const RunOptions& options) : mOptions(options) {}

  void failed(const Failure& failure) {
    std::fprintf(stderr, "%s\n", failure.line().c_str());
    mFailures.push_back(failure.json());
    if (mExitCode == kSuccess || failure.code == kCannotCleanUp) mExitCode = failure.code;
  }
  void interrupted(int signal) {
    std::fprintf(stderr, "mirelsnap: interrupted by signal %d (%s); everything is being removed\n", signal,
                 strsignal(signal));
    mExitCode = 128 + signal;
  }
  void ran(const CommandResult& result) {
    mExitCode = result.exitCode;
    mCommand["exit_code"] = result.exitCode;
    mCommand["signal"] = result.signal == 0 ? json(nullptr) : json(result.signal);
  }
  void took(const SnapshotSet& set) {
    mSet["set_id"] = set.id();
    mSet["base"] = set.base();
    mSet["volumes"] = json::array();
    for (const SnappedVolume& volume : set.volumes()) {
      mSet["volumes"].push_back({{"device", volume.device},
                                 {"mount_points", volume.mountPoints},
                                 {"snapshot_device", volume.snapshotDevice},
                                 {"relocation_file", volume.relocationFile},
                                 {"exposed_at", volume.exposedAt}});
    }
  }
  int finish() const {
    if (mOptions.json) {
      json document = mSet;
      document["command"] = mCommand;
      document["command"]["arguments"] = mOptions.command;
      document["failures"] = mFailures;
      document["exit_code"] = mExitCode;
      std::printf("%s\n", document.dump(-1, ' ', false, json::error_handler_t::replace).c_str());
    }
    return mExitCode;
  }

 private:
  const RunOptions& mOptions;
  int mExitCode = kSuccess;
  json mSet = {{"set_id", nullptr}, {"base", nullptr}, {"volumes", json::array()}};
  json mCommand = {{"exit_code", nullptr}, {"signal", nullptr}};
  json mFailures = json::array();
};

std::map<std::string, std::string> variablesFor(const SnapshotSet& set) {
  std::map<std::string, std::string> variables = {{"MIRELSNAP_BASE", set.base()}, {"MIRELSNAP_SET_ID", set.id()}};
  unsigned int number = 0;
  for (const SnappedVolume& volume : set.volumes())
    variables["MIRELSNAP_VOLUME_" + std::to_string(++number)] = volume.exposedAt;
  return variables;
}

Failure notStarted(const std::string& command, int error) {
  const ExitCode code = error == ENOENT ? kNotFound : kNotExecutable;
  return {code, command, std::string("cannot be executed: ") + std::strerror(error), "check the command after --"};
}

// Everything between the choice of the volumes and the clean-up, whose failures are the set's own.
void snapshotAndRun(const RunOptions& options, SnapshotSet& set, Report& report) {
  if (const Outcome failure = set.take()) return report.failed(*failure);
  if (receivedSignal() != 0) return report.interrupted(receivedSignal());
  if (const Outcome failure = set.expose(options.base)) return report.failed(*failure);
  report.took(set);
  if (receivedSignal() != 0) return report.interrupted(receivedSignal());
  const CommandResult result = runCommand(options.command, variablesFor(set));
  if (result.spawnError != 0) return report.failed(notStarted(options.command.front(), result.spawnError));
  report.ran(result);
}

// As the mount table spells it; as it is when it leads nowhere.
std::string resolved(const std::string& path) {
  std::error_code error;
  const fs::path real = fs::canonical(path, error);
  return error ? path : real.string();
}

// The named places as the library compares them. Each bind once, and one inside another after it.
RunOptions withResolvedPlaces(RunOptions options) {
  if (!options.relocation.mountPoint.empty()) options.relocation.mountPoint = resolved(options.relocation.mountPoint);
  for (std::string& bind : options.binds) bind = resolved(bind);
  std::sort(options.binds.begin(), options.binds.end());
  options.binds.erase(std::unique(options.binds.begin(), options.binds.end()), options.binds.end());
  return options;
}

Outcome checkBinds(const std::vector<std::string>& binds, const MountTable& table) {
  for (const std::string& bind : binds) {
    std::error_code error;
    if (!table.at(bind)) return Failure{kCannotExpose, bind, "is not a mount point", "name a mount point with --bind"};
    if (!fs::is_directory(bind, error))
      return Failure{kCannotExpose, bind, "is not a directory", "bind the mount point of a whole file system"};
  }
  return std::nullopt;
}

Outcome checkPlaces(const std::vector<ChosenVolume>& volumes, const std::vector<std::string>& binds,
                    const MountTable& table) {
  if (Outcome failure = checkBinds(binds, table)) return failure;
  std::vector<std::string> mountPoints;
  for (const ChosenVolume& volume : volumes) mountPoints.push_back(volume.mountPoint);
  return checkCoverage(mountPoints, binds, table);
}

// Root of a container may lack the right. Where it cannot be told, what comes will show.
bool mayMount() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
  return syscall(SYS_capget, &header, sets) != 0 || (sets[0].effective & (1u << CAP_SYS_ADMIN)) != 0;
}

void runWith(const RunOptions& options, Report& report) {
  if (geteuid() != 0) {
    return report.failed({kNotRoot, "mirelsnap run",
                          "needs root: it mounts file systems and talks to the kernel driver", "run it with sudo"});
  }
  if (!mayMount()) {
    return report.failed({kNotRoot, "mirelsnap run", "this root may not mount file systems (CAP_SYS_ADMIN is missing)",
                          "run it outside the container, or give the container this capability"});
  }
  const MountTable table;
  auto chosen = chooseVolumes(options.volumes, table);
  if (const auto* failure = std::get_if<Failure>(&chosen)) return report.failed(*failure);
  auto& volumes = std::get<std::vector<ChosenVolume>>(chosen);
  if (const Outcome failure = checkPlaces(volumes, options.binds, table)) return report.failed(*failure);
  if (const Outcome failure = checkBase(options.base)) return report.failed(*failure);

  holdSignalsBack();
  const VerboseLibrary library(options.verbose);
  Terminal terminal(options.verbose);
  SnapshotSet set(terminal, std::move(volumes), options.binds, options.relocation);
  snapshotAndRun(options, set, report);
  for (const Failure& left : set.finish()) report.failed(left);
}

}  // namespace

int run(const RunOptions& options) {
  Report report(options);
  runWith(withResolvedPlaces(options), report);
  return report.finish();
}

}  // namespace cli
