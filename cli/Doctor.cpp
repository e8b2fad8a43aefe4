// SPDX-License-Identifier: Apache-2.0
//
// `mirelsnap doctor`: what would stop a snapshot here, before anyone tries.
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "Driver.h"
#include "PlacementText.h"
#include "Processes.h"
#include "Remains.h"
#include "Report.h"
#include "Text.h"
#include "Verbs.h"
#include "VolumeCheck.h"
#include "base/ReadText.h"

namespace cli {
namespace {

using nlohmann::json;

struct DoctorOptions {
  std::vector<std::string> volumes;
  bool json = false;
};

class Findings {
 public:
  explicit Findings(Report& report) : mReport(report) { mReport.document()["findings"] = json::array(); }

  void add(const char* kind, const std::string& subject, const std::string& cause, const std::string& advice) {
    mReport.document()["findings"].push_back(
        {{"kind", kind}, {"subject", subject}, {"cause", cause}, {"advice", advice}});
    mReport.print(onOneLine(subject + ": " + cause + "; " + advice) + "\n");
    ++mCount;
  }
  void add(const char* kind, const Failure& failure) { add(kind, failure.subject, failure.cause, failure.advice); }
  std::size_t count() const { return mCount; }

 private:
  Report& mReport;
  std::size_t mCount = 0;
};

// Returns whether there is root, without which nothing below can be known.
bool checkRoot(Findings& findings) {
  const Outcome failure = requireRoot("doctor", "snapshots do, and most of what would stop them shows only to root");
  if (failure) findings.add("root", *failure);
  return !failure;
}

void checkTables(Findings& findings) {
  for (const char* path : {"/proc/mounts", "/proc/self/mountinfo"}) {
    if (!readText(path))
      findings.add("mount-table", path, std::string("the mount table cannot be read: ") + std::strerror(errno),
                   "mount proc on /proc");
  }
  if (!readText("/proc/meminfo"))
    findings.add("memory", "/proc/meminfo", std::string("the state of memory cannot be read: ") + std::strerror(errno),
                 "mount proc on /proc");
}

bool checkDriver(Driver& driver, Findings& findings) {
  const Outcome failure = driver.check();
  if (failure) findings.add("driver", *failure);
  return !failure;
}

// The volumes that can be snapped as far as they themselves show; why the others cannot is a finding each.
std::vector<ChosenVolume> checkChoice(const std::vector<std::string>& names, const MountTable& table,
                                      Findings& findings) {
  std::vector<std::string> asked = names;
  std::vector<ChosenVolume> chosen;
  const auto take = [&](const std::vector<std::string>& some) {
    const auto found = chooseVolumes(some, table);
    if (const auto* failure = std::get_if<Failure>(&found)) return findings.add("volume", *failure);
    for (const ChosenVolume& volume : std::get<std::vector<ChosenVolume>>(found)) {
      if (const Outcome failure = checkVolume(volume)) {
        findings.add("volume", *failure);
      } else {
        chosen.push_back(volume);
      }
    }
  };
  if (names.empty()) {
    take({});
    // What is left out then, although its files change.
    if (const std::optional<Mount> root = table.at("/"); root && root->device == 0) asked.emplace_back("/");
    for (const ChosenVolume& volume : everyMounted(table)) {
      if (!canBeMapped(volume.type)) asked.push_back(volume.mountPoint);
    }
  }
  for (const std::string& name : asked) take({name});
  return chosen;
}

void checkState(Driver& driver, const std::vector<ChosenVolume>& volumes, Findings& findings) {
  for (const ChosenVolume& volume : volumes) {
    // What a dead process left is a finding of its own.
    const std::vector<int> owners = driver.owners(volume.device, volume.number);
    if (driver.snapped(volume.device) && (owners.empty() || !isGone(owners.front())))
      findings.add("snapped", alreadySnapped(driver, volume.device, volume.number));
    if (driver.frozen(volume.device)) findings.add("frozen", alreadyFrozen(volume.device));
  }
}

void tellCost(const Placement& placement, const MountTable& table, Report& report) {
  const std::string type = holderOf(placement, table).type;
  report.document()["relocation_files"].push_back({{"device", placement.volume.device},
                                                   {"path", placement.file.file},
                                                   {"cost", costText(placement, type)},
                                                   {"bytes_written", bytesWritten(placement, type)}});
  report.print(onOneLine(placement.volume.device + ": its relocation file would be " + costText(placement, type)) +
               "\n");
}

// What each relocation file would cost is told, too: it is nothing that stands in the way.
void checkPlaces(const std::vector<ChosenVolume>& volumes, const MountTable& table, Findings& findings,
                 Report& report) {
  for (const Placement& placement : predictPlacements(volumes, {})) {
    // That it is snapped already has been found.
    if (placement.file.reasons.ownVolume == OwnVolume::kSnapped) continue;
    if (!placement.placed()) {
      findings.add("no-room", notPlaced(placement));
    } else if (placement.file.reasons.ownVolume == OwnVolume::kNearlyFull) {
      findings.add("full", placement.volume.device,
                   "is nine tenths full: its relocation file would " +
                       (onOwnVolume(placement) ? "stay there all the same, as no other file system has more space free"
                                               : "go to " + placement.file.file),
                   "free some space on " + placement.volume.mountPoint);
    }
    if (placement.placed()) tellCost(placement, table, report);
  }
}

void checkRemains(Driver& driver, Findings& findings) {
  const std::string advice = "mirelsnap reconcile removes it";
  const Remains remains = findRemains(driver);
  for (const Remains::Snapshot& snapshot : remains.snapshots)
    findings.add("leftover-snapshot", snapshot.device,
                 "is snapped by process " + std::to_string(snapshot.process) + ", which is gone", advice);
  for (const Remains::Mapping& mapping : remains.mappings)
    findings.add(
        "leftover-mapping", mapping.device,
        "is mapped to " + mapping.relocationFile + " by process " + std::to_string(mapping.process) + ", which is gone",
        advice);
  for (const std::string& file : remains.relocationFiles)
    findings.add("leftover-file", file, "is a relocation file of no living process", advice);
  for (const Trace& trace : remains.traces) {
    const bool directory = trace.kind == Trace::Kind::kDirectory;
    findings.add(directory ? "leftover-directory" : "leftover-probe", trace.path,
                 directory ? "is an empty directory for relocation files" : "is a probe for writability", advice);
  }
  for (const Mount& mount : remains.mounts)
    findings.add("leftover-mount", mount.folder, "is still mounted (" + mount.source + "), for a process that is gone",
                 advice);
  for (const Mount& mount : remains.strays)
    findings.add("leftover-mount", mount.folder, causeOf(mount), adviceOn(mount));
  for (const std::string& base : remains.bases)
    findings.add("leftover-folder", base, "is the base of a process that is gone", advice);
  for (const Failure& failure : remains.unknown) findings.add("leftover-unknown", failure);
}

void doctor(const DoctorOptions& options, Report& report) {
  Findings findings(report);
  report.document()["relocation_files"] = json::array();
  const bool root = checkRoot(findings);
  checkTables(findings);
  const MountTable table;
  const std::vector<ChosenVolume> volumes = checkChoice(options.volumes, table, findings);
  if (root) {
    Driver driver;
    const bool answers = checkDriver(driver, findings);
    if (answers) checkState(driver, volumes, findings);
    checkPlaces(volumes, table, findings, report);
    if (answers) checkRemains(driver, findings);
  }
  if (findings.count() != 0) {
    report.setExitCode(kFindings);
    return report.print(counted(findings.count(), "finding") + ".\n");
  }
  report.print("Nothing stands in the way of a snapshot of " + onOneLine(listed(devicesOf(volumes))) + ".\n");
}

}  // namespace

void addDoctor(CLI::App& program, CommandLine& line) {
  auto [verb, options] = addVerb<DoctorOptions>(
      program, line, "doctor", "Look for what would stop a snapshot here, before anyone tries", &doctor);
  verb.optionalArguments("VOLUME", options->volumes,
                         "Volumes to look at: device, mount point, or DEVICE:MOUNTPOINT\n"
                         "(default: every mounted volume that can be snapped, and what\nwould be left out)");
  addJsonOption(verb, options->json);
  verb.footer(
      "Each finding is one line: the device or path, the cause, what to do next.\n"
      "Nothing is changed, but the driver is loaded when it is not.\n\n" +
      exitCodeHelp({kSuccess, kFindings}));
}

}  // namespace cli
