// SPDX-License-Identifier: Apache-2.0
//
// `mirelsnap status`: what the driver holds, and who of it.
#include <sys/sysmacros.h>

#include <ctime>
#include <map>
#include <sstream>

#include "Driver.h"
#include "MountTable.h"
#include "Processes.h"
#include "Report.h"
#include "SnapshotDevice.h"
#include "Terminal.h"
#include "Text.h"
#include "Verbs.h"
#include "VolumeChoice.h"
#include "base/ReadText.h"
#include "driver/DriverProtocol.h"
#include "driver/VolumeRecords.h"

namespace cli {
namespace {

using nlohmann::json;

struct StatusOptions {
  bool json = false;
};

json ownerJson(int process) { return {{"pid", process}, {"name", processName(process)}, {"alive", !isGone(process)}}; }

std::string numbersText(unsigned int major, unsigned int minor) {
  return std::to_string(major) + ":" + std::to_string(minor);
}

// How the driver's file tells that a snapshot is; all of it unknown where there is no such file.
struct SnapshotState {
  std::string state = "unknown";
  std::uint64_t kept = 0, room = 0;  // blocks of 4 KiB in the relocation file, and how many it takes
  std::uint64_t memory = 0;          // bytes
  std::uint64_t frozen = 0;          // microseconds for which the volumes stood still
  std::string instant;               // seconds since 1970
};

// By the number of the volume. A line is words "key=value".
std::map<std::string, SnapshotState> snapshotStates() {
  std::map<std::string, SnapshotState> states;
  std::istringstream file(readText(kDriverSnapshotsPath).value_or(""));
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line);
    std::map<std::string, std::string> values;
    for (std::string word; words >> word;) {
      const std::size_t sign = word.find('=');
      if (sign != std::string::npos) values[word.substr(0, sign)] = word.substr(sign + 1);
    }
    const auto number = [&](const char* key) { return std::strtoull(values[key].c_str(), nullptr, 10); };
    states[values["volume"]] = {values["state"],  number("kept"),      number("of"),
                                number("memory"), number("frozen_us"), values["instant"]};
  }
  return states;
}

// "2026-04-03 14:05:09", the machine's time; "-" where it is unknown.
std::string timeText(const std::string& seconds) {
  const std::time_t time = std::strtoll(seconds.c_str(), nullptr, 10);
  std::tm parts{};
  char text[32];
  if (seconds.empty() || localtime_r(&time, &parts) == nullptr) return "-";
  return std::string(text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts));
}

// Where the snapshot that the driver offers for a volume is mounted.
std::vector<std::string> exposures(const MountTable& table, const std::string& snapshotDevice) {
  std::vector<std::string> folders;
  for (const Mount& mount : table.mounts()) {
    if (mount.source == snapshotDevice) folders.push_back(mount.folder);
  }
  return folders;
}

std::string tellSnapped(Driver& driver, const MountTable& table, json& document) {
  Table shown({"NAME", "DEVICE", ">SIZE", "SNAPSHOT", "RELOCATION FILE", ">SIZE", "OWNER"});
  Table snapshots({"NAME", "STATE", ">KEPT", ">OF", ">MEMORY", ">FROZEN", "TAKEN"});
  std::map<std::string, SnapshotState> states = snapshotStates();
  document = json::array();
  for (const SnappedVolumeInformation& volume : driver.snappedVolumes()) {
    const std::string name = WStringToString(volume.getSnappedVolumeName());
    const std::string file = WStringToString(volume.getRelocFileName());
    const std::string snapshot = snapshotDeviceOf(volume);
    const std::uint64_t size = volume.getNumBlocks() * volume.getBlockSize();
    const SnapshotState state = states[numbersText(volume.getMajorNum(), volume.getMinorNum())];
    const std::uint64_t fileSize = std::uint64_t{volume.getRelocFileSize()} * volume.getBlockSize();
    document.push_back({{"name", name},
                        {"device", numbersText(volume.getMajorNum(), volume.getMinorNum())},
                        {"size", size},
                        {"blocks", volume.getNumBlocks()},
                        {"block_size", volume.getBlockSize()},
                        {"snapshot_device", snapshot},
                        {"exposed_at", exposures(table, snapshot)},
                        {"relocation_file", file},
                        {"relocation_size", fileSize},
                        {"relocation_blocks", volume.getRelocFileSize()},
                        {"owner", ownerJson(volume.getAppPid())},
                        {"state", state.state},
                        {"kept", state.kept},
                        {"room", state.room},
                        {"memory", state.memory},
                        {"frozen_microseconds", state.frozen},
                        {"instant", state.instant}});
    snapshots.add({name, state.state, std::to_string(state.kept), std::to_string(state.room), sizeText(state.memory),
                   std::to_string(state.frozen / 1000) + " ms", timeText(state.instant)});
    shown.add({name, numbersText(volume.getMajorNum(), volume.getMinorNum()), sizeText(size), snapshot, file,
               sizeText(fileSize), ownerText(volume.getAppPid())});
  }
  if (shown.empty()) return "No volume is snapped.\n";
  return "Snapped volumes\n" + shown.text(outputColumns()) + "\nSnapshots\n" + snapshots.text(outputColumns());
}

std::string tellMappings(Driver& driver, json& document) {
  Table shown({"VOLUME", "RELOCATION FILE", "OWNER"});
  document = json::array();
  for (const RelocFileMappingInformation& mapping : driver.mappings()) {
    document.push_back({{"volume", mapping.getSnappedVolumeName()},
                        {"relocation_file", mapping.getRelocFileName()},
                        {"owner", ownerJson(mapping.getAppPid())}});
    shown.add({mapping.getSnappedVolumeName(), mapping.getRelocFileName(), ownerText(mapping.getAppPid())});
  }
  return shown.empty() ? "No relocation file is mapped.\n" : "Mapped relocation files\n" + shown.text(outputColumns());
}

std::string tellMounted(Driver& driver, const MountTable& table, json& document) {
  Table shown({"DEVICE", "MOUNTED ON", "TYPE", "STATE"});
  document = json::array();
  for (const ChosenVolume& volume : everyMounted(table)) {
    if (isSnapshotDevice(volume.device)) continue;
    std::vector<std::string> folders;
    for (const Mount& mount : table.of(volume.number)) folders.push_back(mount.folder);
    const bool snapped = driver.snapped(volume.device);
    const bool frozen = driver.frozen(volume.device);
    const std::optional<Tracking> tracking = driver.tracking(volume.device);
    document.push_back(
        {{"device", volume.device},
         {"mount_points", folders},
         {"type", volume.type},
         {"snapped", snapped},
         {"frozen", frozen},
         {"tracking", tracking ? json{{"id", tracking->id}, {"sequence", tracking->sequence}} : json(nullptr)}});
    std::vector<std::string> states;
    if (snapped) states.emplace_back("snapped");
    if (frozen) states.emplace_back("frozen");
    if (tracking) states.push_back("changes tracked (sequence " + std::to_string(tracking->sequence) + ")");
    for (std::size_t i = 0; i < folders.size(); ++i) {
      const std::string state = states.empty() ? "-" : listed(states);
      shown.add({i == 0 ? volume.device : "", folders[i], i == 0 ? volume.type : "", i == 0 ? state : ""});
    }
  }
  return shown.empty() ? "No block device is mounted.\n" : "Mounted volumes\n" + shown.text(outputColumns());
}

void status(const StatusOptions&, Report& report) {
  json& document = report.document();
  document = {{"driver_version", nullptr},
              {"snapped_volumes", json::array()},
              {"mappings", json::array()},
              {"mounted_volumes", json::array()}};
  if (const Outcome failure = requireRoot("status", "it talks to the kernel driver")) return report.failed(*failure);
  Driver driver;
  std::string version;
  if (const Outcome failure = driver.check(&version)) return report.failed(*failure);
  const MountTable table;
  document["driver_version"] = version;
  report.print("Driver " + version + "\n\n");
  report.print(tellSnapped(driver, table, document["snapped_volumes"]) + "\n");
  report.print(tellMappings(driver, document["mappings"]) + "\n");
  report.print(tellMounted(driver, table, document["mounted_volumes"]));
}

}  // namespace

void addStatus(CLI::App& program, CommandLine& line) {
  auto [verb, options] = addVerb<StatusOptions>(
      program, line, "status", "Show the snapshots, mappings and frozen volumes of the driver", &status);
  addJsonOption(verb, options->json);
  verb.footer("An owner that is gone left what it held: mirelsnap reconcile removes it.\n\n" +
              exitCodeHelp({kSuccess, kNotRoot, kNoDriver}));
}

}  // namespace cli
