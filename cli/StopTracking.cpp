// SPDX-License-Identifier: Apache-2.0
//
// `mirelsnap stop-tracking`: the driver forgets which blocks of volumes changed.
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

struct StopOptions {
  std::vector<std::string> devices;
  bool json = false;
};

void stopTracking(const StopOptions& options, Report& report) {
  report.document()["devices"] = json::array();
  if (const Outcome failure = requireRoot("stop-tracking", "it talks to the kernel driver"))
    return report.failed(*failure);
  const MountTable table;
  std::vector<std::string> devices;
  for (const std::string& name : options.devices) {
    const auto named = deviceNamed(name, table);
    if (const auto* failure = std::get_if<Failure>(&named)) return report.failed(*failure);
    devices.push_back(std::get<std::string>(named));
  }
  Driver driver;
  if (const Outcome failure = driver.check()) return report.failed(*failure);
  for (const std::string& device : devices) {
    if (!driver.tracking(device)) return report.failed(notTracked(device));
  }
  std::list<std::wstring> names;
  for (const std::string& device : devices) names.push_back(StringToWString(device));
  if (const unsigned int status = driver.get()->StopVtrack(&names); status != 0)
    return report.failed(refused(listed(devices), status));
  for (const std::string& device : devices) report.document()["devices"].push_back(device);
  report.print("No longer tracked: " + onOneLine(listed(devices)) + "\n");
}

}  // namespace

void addStopTracking(CLI::App& program, CommandLine& line) {
  auto [verb, options] = addVerb<StopOptions>(program, line, "stop-tracking",
                                              "Have the driver forget which blocks of volumes changed", &stopTracking);
  verb.arguments("DEVICE", options->devices, "Volumes that are tracked: device or mount point");
  addJsonOption(verb, options->json);
  verb.footer("Their snapshots stay. Nothing is stopped when one of them is not tracked.\n\n" +
              exitCodeHelp({kSuccess, kNotRoot, kNoDriver, kVolumeNotSupported, kRefused, kNotInState}));
}

}  // namespace cli
