// SPDX-License-Identifier: Apache-2.0
//
// `mirelsnap freeze` and `mirelsnap thaw`: writers stand still, and go on.
#include <list>

#include "Driver.h"
#include "Report.h"
#include "Text.h"
#include "Verbs.h"
#include "VolumeChoice.h"
#include "driver/VolumeRecords.h"

namespace cli {
namespace {

using nlohmann::json;

struct FreezeOptions {
  std::vector<std::string> devices;
  bool json = false;
};

// What is different in the two verbs.
struct Direction {
  const char* verb;
  const char* done;  // "Frozen"
  unsigned int (SnapDriverInterface::*request)(std::list<std::wstring>*);
  unsigned int wrongState;  // the answer that one volume is in that state already
  bool frozenAfterwards;
};
constexpr Direction kFreeze = {"freeze", "Frozen", &SnapDriverInterface::FreezeVolume, 24, true};
constexpr Direction kThaw = {"thaw", "Thawed", &SnapDriverInterface::ThawVolume, 25, false};

Failure inWrongState(const Direction& direction, const std::string& device) {
  if (direction.frozenAfterwards) return alreadyFrozen(device);
  return {kNotInState, device, "is not frozen", "mirelsnap status shows which volumes are"};
}

// The driver takes all of them or none.
Outcome change(const Direction& direction, Driver& driver, const std::vector<std::string>& devices) {
  std::list<std::wstring> names;
  for (const std::string& device : devices) names.push_back(StringToWString(device));
  const unsigned int status = (driver.get()->*direction.request)(&names);
  if (status == 0) return std::nullopt;
  if (status == direction.wrongState) {
    for (const std::string& device : devices) {
      if (driver.frozen(device) == direction.frozenAfterwards) return inWrongState(direction, device);
    }
    return inWrongState(direction, listed(devices));
  }
  return refused(listed(devices), status == 3 ? 6 : status);
}

void changeState(const Direction& direction, const FreezeOptions& options, Report& report) {
  report.document()["devices"] = json::array();
  if (const Outcome failure = requireRoot(direction.verb, "it talks to the kernel driver"))
    return report.failed(*failure);
  const MountTable table;
  const auto chosen = chooseVolumes(options.devices, table);
  if (const auto* failure = std::get_if<Failure>(&chosen)) return report.failed(*failure);
  Driver driver;
  if (const Outcome failure = driver.check()) return report.failed(*failure);
  const std::vector<std::string> devices = devicesOf(std::get<std::vector<ChosenVolume>>(chosen));
  if (const Outcome failure = change(direction, driver, devices)) return report.failed(*failure);
  for (const std::string& device : devices)
    report.document()["devices"].push_back({{"device", device}, {"frozen", direction.frozenAfterwards}});
  report.print(std::string(direction.done) + ": " + onOneLine(listed(devices)) + "\n");
}

void add(CLI::App& program, CommandLine& line, const Direction& direction, const char* description,
         const std::string& footer) {
  auto [verb, options] = addVerb<FreezeOptions>(
      program, line, direction.verb, description,
      [&direction](const FreezeOptions& chosen, Report& report) { changeState(direction, chosen, report); });
  verb.arguments("DEVICE", options->devices, "Mounted volumes: device, mount point, or DEVICE:MOUNTPOINT");
  addJsonOption(verb, options->json);
  verb.footer(footer);
}

}  // namespace

void addFreeze(CLI::App& program, CommandLine& line) {
  add(program, line, kFreeze, "Make the writers of volumes stand still until thaw",
      "Take care: whoever writes to a frozen volume waits, without an end, until\n"
      "mirelsnap thaw; this command's own output too, when it goes to a file there.\n"
      "Never freeze the root file system at a prompt: the next thing that a shell\n"
      "writes there keeps you from typing thaw. No snapshot can be taken of a frozen\n"
      "volume. Freezes do not add up: all of the volumes are frozen or, when one is\n"
      "frozen already, none (114), and one thaw is enough.\n\n" +
          exitCodeHelp({kSuccess, kNotRoot, kNoDriver, kVolumeNotSupported, kAlreadySnapped, kRefused}));
}

void addThaw(CLI::App& program, CommandLine& line) {
  add(program, line, kThaw, "Let the writers of frozen volumes go on",
      "All of the volumes are thawed or, when one is not frozen, none (120).\n\n" +
          exitCodeHelp({kSuccess, kNotRoot, kNoDriver, kVolumeNotSupported, kRefused, kNotInState}));
}

}  // namespace cli
