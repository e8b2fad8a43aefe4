// SPDX-License-Identifier: Apache-2.0
#include "Run.h"

#include <linux/capability.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <map>
#include <memory>

#include <mirelsnap/DriverInterface.h>
#include <nlohmann/json.hpp>

#include "ExposureBase.h"
#include "Failure.h"
#include "Report.h"
#include "SnapshotSet.h"
#include "Terminal.h"
#include "Text.h"
#include "VolumeCheck.h"
#include "VolumeChoice.h"
#include "Wide.h"

namespace fs = std::filesystem;

namespace cli {
namespace {

using nlohmann::json;

void printEngineMessage(unsigned short, const wchar_t* message, void*) {
  std::fprintf(stderr, "mirelsnap: %s\n", onOneLine(narrow(message)).c_str());
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
class RunReport {
 public:
  RunReport(const RunOptions& options, const Command& command) : mReport(options.json) {
    json& document = mReport.document();
    document = {{"set_id", nullptr}, {"base", nullptr}, {"volumes", json::array()}};
    document["command"] = {{"arguments", command.arguments}, {"exit_code", nullptr}, {"signal", nullptr}};
  }

  void failed(const Failure& failure) { mReport.failed(failure); }
  void interrupted(int signal) {
    std::fprintf(stderr, "mirelsnap: interrupted by signal %d (%s); everything is being removed\n", signal,
                 strsignal(signal));
    mReport.setExitCode(128 + signal);
  }
  void ran(const CommandResult& result) {
    mReport.setExitCode(result.exitCode);
    json& command = mReport.document()["command"];
    command["exit_code"] = result.exitCode;
    command["signal"] = result.signal == 0 ? json(nullptr) : json(result.signal);
  }
  void took(const SnapshotSet& set) {
    json& document = mReport.document();
    document["set_id"] = set.id();
    document["base"] = set.base();
    for (const SnappedVolume& volume : set.volumes()) {
      document["volumes"].push_back({{"device", volume.device},
                                     {"mount_points", volume.mountPoints},
                                     {"snapshot_device", volume.snapshotDevice},
                                     {"relocation_file", volume.relocationFile},
                                     {"exposed_at", volume.exposedAt}});
    }
  }
  int finish() { return mReport.finish(); }

 private:
  Report mReport;
};

std::map<std::string, std::string> variablesFor(const SnapshotSet& set) {
  std::map<std::string, std::string> variables = {{"MIRELSNAP_BASE", set.base()}, {"MIRELSNAP_SET_ID", set.id()}};
  unsigned int number = 0;
  for (const SnappedVolume& volume : set.volumes())
    variables["MIRELSNAP_VOLUME_" + std::to_string(++number)] = volume.exposedAt;
  return variables;
}

Failure notStarted(const Command& command, int error) {
  const ExitCode code = error == ENOENT ? kNotFound : kNotExecutable;
  return {code, command.arguments.front(), std::string("cannot be executed: ") + std::strerror(error),
          command.verb == "run" ? "check the command after --" : "check $SHELL"};
}

// Everything between the choice of the volumes and the clean-up, whose failures are the set's own.
void takeAndRun(const RunOptions& options, Command& command, SnapshotSet& set, RunReport& report) {
  if (const Outcome failure = set.take()) return report.failed(*failure);
  if (receivedSignal() != 0) return report.interrupted(receivedSignal());
  if (const Outcome failure = set.expose(options.base)) return report.failed(*failure);
  report.took(set);
  if (receivedSignal() != 0) return report.interrupted(receivedSignal());
  if (!command.greeting.empty() && isatty(STDERR_FILENO) == 1)
    std::fprintf(stderr, "%s %s\n", command.greeting.c_str(), onOneLine(set.base()).c_str());
  std::map<std::string, std::string> variables = variablesFor(set);
  variables.merge(command.variables);
  if (command.manner.inBase) command.manner.folder = set.base();
  const CommandResult result = runCommand(command.arguments, variables, command.manner);
  if (result.spawnError != 0) return report.failed(notStarted(command, result.spawnError));
  report.ran(result);
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
    if (!isDecodable(bind)) return Failure{kCannotExpose, bind, std::string("is ") + kUndecodable, kUndecodableAdvice};
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

void runWith(const RunOptions& options, Command& command, RunReport& report) {
  if (const Outcome failure = requireRoot(command.verb, "it mounts file systems and talks to the kernel driver"))
    return report.failed(*failure);
  if (!mayMount()) {
    return report.failed({kNotRoot, "mirelsnap " + command.verb,
                          "this root may not mount file systems (CAP_SYS_ADMIN is missing)",
                          "run it outside the container, or give the container this capability"});
  }
  const MountTable table;
  auto chosen = chooseVolumes(options.volumes, table);
  if (const auto* failure = std::get_if<Failure>(&chosen)) return report.failed(*failure);
  auto& volumes = std::get<std::vector<ChosenVolume>>(chosen);
  if (const Outcome failure = checkVolumes(volumes)) return report.failed(*failure);
  if (const Outcome failure = checkRelocationMount(options.relocation)) return report.failed(*failure);
  if (const Outcome failure = checkPlaces(volumes, options.binds, table)) return report.failed(*failure);
  if (const Outcome failure = checkBase(options.base)) return report.failed(*failure);

  holdSignalsBack();
  const VerboseLibrary library(options.verbose);
  Terminal terminal(options.verbose);
  SnapshotSet set(terminal, std::move(volumes), options.binds, options.relocation);
  takeAndRun(options, command, set, report);
  for (const Failure& left : set.finish()) report.failed(left);
}

// What is wrong with a size; nothing when it is one.
std::string checkBlocks(const std::string& text) {
  std::uint32_t blocks = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), blocks);
  if (error == std::errc() && end == text.data() + text.size() && blocks != 0) return "";
  return text + " is no number of blocks (1 to " + std::to_string(std::numeric_limits<std::uint32_t>::max()) + ")";
}

}  // namespace

int snapshotAndRun(const RunOptions& options, Command command) {
  RunReport report(options, command);
  runWith(withResolvedPlaces(options), command, report);
  return report.finish();
}

void addRelocationOptions(Syntax& verb, RelocationOptions& options) {
  verb.option("--reloc-mount", "DIR", options.mountPoint, "Mount point for the relocation files");
  verb.option("--reloc-size", "BLOCKS", options.blocks, "Size of each relocation file, in blocks of its volume",
              checkBlocks);
  verb.together("--reloc-mount", "--reloc-size");
}

void addSnapshotOptions(Syntax& verb, RunOptions& options) {
  verb.repeatableOption("--volume", "DEVICE[:MOUNTPOINT]", options.volumes,
                        "A volume to snapshot: its device, its mount point, or\n"
                        "DEVICE:MOUNTPOINT; may be repeated\n"
                        "(default: every mounted volume that can be snapped)");
  verb.option("--base", "DIR", options.base,
              "Where the snapshots are mounted: a new or an empty directory\nof root's (default: /run/mirelsnap/PID)");
  verb.repeatableOption("--bind", "MOUNTPOINT", options.binds,
                        "A live mount point to show below the base as well, read-only;\nmay be repeated");
  addRelocationOptions(verb, options.relocation);
  verb.flag("--json", options.json, "Print the result as one JSON document to standard output");
  verb.flag("--verbose", options.verbose, "Show each phase and the library's own messages");
}

std::string environmentHelp() {
  return "finds the snapshots below $MIRELSNAP_BASE, each volume's first\n"
         "mount point in $MIRELSNAP_VOLUME_1, _2, ... in the order named, and the set's\n"
         "identifier in $MIRELSNAP_SET_ID.\n\n";
}

void addRun(CLI::App& program, CommandLine& line) {
  Syntax verb(program, "run", "Snapshot volumes, run a command on the snapshots, clean up");
  const auto options = std::make_shared<RunOptions>();
  verb.usage("mirelsnap run [OPTIONS] -- COMMAND [ARG...]");
  addSnapshotOptions(verb, *options);
  verb.footer("COMMAND " + environmentHelp() +
              "The exit code is COMMAND's own, 128 + N when signal N ended it, or one of\nthese.\n\n" +
              exitCodeHelp({kNotRoot, kNoDriver, kVolumeNotSupported, kAlreadySnapped, kNoRoom, kSnapshotFailed,
                            kCannotExpose, kCannotCleanUp, kNotExecutable, kNotFound}));
  verb.whenRead([options, &line] {
    if (line.command.empty())
      refuseCommandLine("run: what is to be run? Put it behind --, as in: mirelsnap run -- COMMAND");
    line.action = [options, &line] { return snapshotAndRun(*options, {"run", line.command, {}, "", {}}); };
  });
}

}  // namespace cli
