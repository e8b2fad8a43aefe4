// SPDX-License-Identifier: Apache-2.0
//
// `mirelsnap plan`: where each relocation file would go, how large, and why; nothing is made.
#include <algorithm>
#include <iterator>

#include "Driver.h"
#include "PlacementText.h"
#include "Processes.h"
#include "Report.h"
#include "Run.h"
#include "Text.h"
#include "Verbs.h"
#include "VolumeCheck.h"

namespace cli {
namespace {

using nlohmann::json;

struct PlanOptions {
  std::vector<std::string> volumes;
  RelocationOptions relocation;
  bool json = false;
};

std::string bytesText(const Placement& placement) {
  return sizeText(placement.bytes()) + " (" + std::to_string(placement.bytes()) +
         " bytes: " + counted(placement.file.blocks, "block") + " of " + std::to_string(placement.blockSize) + ")";
}

// "/dev/sda1 on /srv (ext4, 1.5 GiB)"
std::string headline(const Placement& placement) {
  const std::string size = placement.volumeSize == 0 ? "size unknown" : sizeText(placement.volumeSize);
  return onOneLine(placement.volume.device + " on " + placement.volume.mountPoint + " (" + placement.volume.type +
                   ", " + size + ")") +
         "\n";
}

json fileJson(const Placement& placement, const Mount& mount) {
  return {{"path", placement.file.file},
          {"size", placement.bytes()},
          {"blocks", placement.file.blocks},
          {"block_size", placement.blockSize},
          {"file_system",
           {{"mount_point", placement.file.mountPoint}, {"device", placement.file.device}, {"type", mount.type}}},
          {"on_volume_itself", onOwnVolume(placement)},
          {"why_there", whereText(placement)},
          {"why_this_size", sizeReasonText(placement)},
          {"cost", costText(placement, mount.type)},
          {"bytes_written", bytesWritten(placement, mount.type)},
          {"passed_over", passedOverTexts(placement)}};
}

std::string fileText(const Placement& placement, const Mount& mount) {
  const std::vector<std::string> passedOver = passedOverTexts(placement);
  std::string text = "  relocation file  " + onOneLine(placement.file.file) + "\n";
  text += "  size             " + bytesText(placement) + ": " + sizeReasonText(placement) + "\n";
  text += "  on               " +
          onOneLine(placement.file.mountPoint + " (" + mount.type + ", " + placement.file.device) +
          "): " + whereText(placement) + "\n";
  text += "  cost             " + costText(placement, mount.type) + "\n";
  if (!passedOver.empty()) text += "  passed over      " + onOneLine(listed(passedOver)) + "\n";
  return text;
}

// One volume: `obstacle` keeps it from being snapped, wherever its file went; one that is `refused` gets none.
void tell(const Placement& placement, const MountTable& table, bool refused, const Outcome& obstacle, Report& report) {
  json entry = {{"device", placement.volume.device},
                {"mount_point", placement.volume.mountPoint},
                {"type", placement.volume.type},
                {"size", placement.volumeSize == 0 ? json(nullptr) : json(placement.volumeSize)},
                {"relocation_file", nullptr}};
  std::string text = headline(placement);
  if (refused || !placement.placed()) {
    text += "  relocation file  none\n";
  } else {
    const Mount mount = holderOf(placement, table);
    entry["relocation_file"] = fileJson(placement, mount);
    text += fileText(placement, mount);
  }
  report.print(text + "\n");
  report.document()["volumes"].push_back(entry);
  if (obstacle) {
    report.failed(*obstacle);
  } else if (!placement.placed()) {
    report.failed(notPlaced(placement));
  }
}

// What would keep a run from taking the volume at one of its mount points.
Outcome refusalOf(const ChosenVolume& volume, const std::vector<ChosenVolume>& chosen) {
  std::vector<ChosenVolume> same;
  std::copy_if(chosen.begin(), chosen.end(), std::back_inserter(same),
               [&](const ChosenVolume& other) { return other.number == volume.number; });
  return checkVolumes(same);
}

void plan(const PlanOptions& options, Report& report) {
  report.document()["volumes"] = json::array();
  if (const Outcome failure = requireRoot("plan", "it reads devices and talks to the kernel driver"))
    return report.failed(*failure);
  const MountTable table;
  const auto named = chooseVolumes(options.volumes, table);
  if (const auto* failure = std::get_if<Failure>(&named)) return report.failed(*failure);
  if (const Outcome failure = checkRelocationMount(options.relocation)) return report.failed(*failure);
  const auto& chosen = std::get<std::vector<ChosenVolume>>(named);
  Driver driver;
  const Outcome noAnswer = driver.check();
  for (const Placement& placement : predictPlacements(chosen, options.relocation)) {
    Outcome obstacle = refusalOf(placement.volume, chosen);
    const bool refused = obstacle.has_value();
    if (!refused && !noAnswer) obstacle = driver.busy(placement.volume.device, placement.volume.number);
    tell(placement, table, refused, obstacle, report);
  }
  if (noAnswer) report.failed(*noAnswer);
}

}  // namespace

void addPlan(CLI::App& program, CommandLine& line) {
  auto [verb, options] =
      addVerb<PlanOptions>(program, line, "plan", "Show where relocation files would go, how large and why", &plan);
  verb.optionalArguments("VOLUME", options->volumes,
                         "The volumes of the set: device, mount point, or\nDEVICE:MOUNTPOINT\n"
                         "(default: every mounted volume that can be snapped)");
  addRelocationOptions(verb, options->relocation);
  addJsonOption(verb, options->json);
  verb.footer(
      "Nothing is made or written. The volumes are taken as one set, in this order:\n"
      "they share the memory that the driver can use. Free space, memory and what\n"
      "other programs snap may change until then. The exit code is the one with which\n"
      "mirelsnap run would fail for the first reason found.\n\n" +
      exitCodeHelp({kSuccess, kNotRoot, kNoDriver, kVolumeNotSupported, kAlreadySnapped, kNoRoom}));
}

}  // namespace cli
