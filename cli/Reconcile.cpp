// SPDX-License-Identifier: Apache-2.0
//
// `mirelsnap reconcile`: removes what dead processes left, and tells what it was.
#include <algorithm>
#include <memory>

#include <mirelsnap/SnapshotEngine.h>

#include "BaseSweep.h"
#include "Driver.h"
#include "ExposureBase.h"
#include "Processes.h"
#include "Remains.h"
#include "Report.h"
#include "SnapshotDevice.h"
#include "Text.h"
#include "Verbs.h"
#include "driver/ControlDevice.h"

namespace cli {
namespace {

using nlohmann::json;
using UnixSnapshotCoordinator::IUscSnapshotEngine;

struct ReconcileOptions {
  std::string base;
  bool json = false;
};

// What was found, and what of it is still there afterwards.
class Removal {
 public:
  Removal(const Remains& before, const Remains& after, Report& report)
      : mBefore(before), mAfter(after), mReport(report) {}

  void tell() {
    tellSnapshots();
    tellMappings();
    tellRelocationFiles();
    tellMounts();
    tellOthers();
    tellFolders();
    tellStrays();
  }

 private:
  void tellSnapshots() {
    for (const Remains::Snapshot& snapshot : mBefore.snapshots) {
      const bool left = isIn(mAfter.snapshots, [&](const auto& other) { return other.device == snapshot.device; });
      note("snapshots",
           {{"device", snapshot.device}, {"relocation_file", snapshot.relocationFile}, {"pid", snapshot.process}},
           "snapshot of " + snapshot.device + ", taken by " + dead(snapshot.process), left, snapshot.device,
           "is still snapped: the driver refused to discard the snapshot of " + dead(snapshot.process),
           "look for MIRELSNAP_SDK in the system log");
    }
  }
  void tellMappings() {
    for (const Remains::Mapping& mapping : mBefore.mappings) {
      const bool left = isIn(mAfter.mappings, [&](const auto& other) {
        return other.device == mapping.device && other.process == mapping.process;
      });
      note("mappings",
           {{"device", mapping.device}, {"relocation_file", mapping.relocationFile}, {"pid", mapping.process}},
           "mapping of " + mapping.device + " to " + mapping.relocationFile + ", made by " + dead(mapping.process),
           left, mapping.device, "is still mapped to " + mapping.relocationFile + " for " + dead(mapping.process),
           "look for MIRELSNAP_SDK in the system log");
    }
  }
  void tellRelocationFiles() {
    for (const std::string& file : mBefore.relocationFiles) {
      const bool left = isIn(mAfter.relocationFiles, [&](const auto& other) { return other == file; });
      note("relocation_files", {{"path", file}}, "relocation file " + file, left, file,
           "the relocation file could not be removed", "remove it by hand");
    }
  }
  void tellMounts() {
    for (const Mount& mount : mBefore.mounts) {
      const bool left = isIn(mAfter.mounts, [&](const auto& other) { return other.folder == mount.folder; });
      note("mounts", {{"folder", mount.folder}, {"source", mount.source}},
           "mount of " + mount.source + " on " + mount.folder, left, mount.folder,
           "is still mounted: " + (left ? usersText(usersOf(mount.folder)) : ""),
           "stop what uses it, then run this again");
    }
  }
  void tellOthers() {
    for (const Mount& mount : mAfter.others)
      note("mounts", {{"folder", mount.folder}, {"source", mount.source}}, "", true, mount.folder,
           "is mounted there (" + mount.source + "), but not by an exposure: it was left alone",
           "unmount it if it is of no use");
  }
  void tellFolders() {
    for (const std::string& base : mBefore.bases) {
      const bool left = isIn(mAfter.bases, [&](const auto& other) { return other == base; });
      const auto holds = [&](const Mount& mount) { return liesWithin(mount.folder, base); };
      const bool explained = isIn(mAfter.mounts, holds) || isIn(mAfter.others, holds);
      if (left && explained) continue;
      note("folders", {{"path", base}}, "folder " + base, left, base, "the folder could not be removed",
           "look at what is in it");
    }
  }

  // Which base they are of is a guess, and what else is mounted there unknown: whoever knows names it.
  void tellStrays() {
    for (const Mount& mount : mAfter.strays)
      note("mounts", {{"folder", mount.folder}, {"source", mount.source}}, "", true, mount.folder, causeOf(mount),
           adviceOn(mount));
  }

  template <class Items, class Same>
  static bool isIn(const Items& items, Same same) {
    return std::any_of(items.begin(), items.end(), same);
  }
  static std::string dead(int process) { return "process " + std::to_string(process) + ", which is gone"; }

  void note(const char* kind, json entry, const std::string& what, bool left, const std::string& subject,
            const std::string& cause, const std::string& advice) {
    entry["removed"] = !left;
    mReport.document()[kind].push_back(entry);
    if (left) return mReport.failed({kCannotCleanUp, subject, cause, advice});
    mReport.print(onOneLine("Removed the " + what) + "\n");
  }

  const Remains& mBefore;
  const Remains& mAfter;
  Report& mReport;
};

// The process whose snapshots a base shows, or whose run has it, and which lives.
std::optional<int> livingOwner(const std::string& base, const std::vector<Mount>& mounts, Driver& driver) {
  for (const SnappedVolumeInformation& volume : driver.snappedVolumes()) {
    const std::string device = snapshotDeviceOf(volume);
    const bool shown =
        std::any_of(mounts.begin(), mounts.end(), [&](const Mount& mount) { return mount.source == device; });
    if (shown && !isGone(volume.getAppPid())) return volume.getAppPid();
  }
  for (const BaseRecord& record : livingBases()) {
    if (liesWithin(record.base, base)) return record.process;
  }
  return std::nullopt;
}

// A base that is named holds the snapshots of a dead process and nothing of a living one.
Outcome checkNamedBase(const std::string& base, Driver& driver) {
  if (base == "/") return Failure{kUsage, base, "is no base: everything is mounted below it", "name the base itself"};
  const std::vector<Mount> mounts = MountTable().under(base);
  if (const std::optional<int> owner = livingOwner(base, mounts, driver))
    return Failure{kUsage, base, "shows a snapshot of " + processText(*owner) + ", which lives", "wait until it ends"};
  const std::vector<BaseRecord> abandoned = abandonedBases();
  const bool known = mounts.empty() || std::any_of(mounts.begin(), mounts.end(),
                                                   [&](const Mount& mount) { return isOfExposure(mount, abandoned); });
  if (!known)
    return Failure{kUsage, base, "no snapshot is mounted there, but other volumes are", "name the base of an exposure"};
  return std::nullopt;
}

// The bases first: the driver keeps what is discarded while it is mounted. Whether the driver could be reconciled.
bool sweep(const std::string& base, Report& report) {
  struct Release {
    void operator()(IUscSnapshotEngine* engine) const { engine->Release(); }
  };
  if (const Outcome failure = sweepBases(base)) report.failed(*failure);
  const std::unique_ptr<IUscSnapshotEngine, Release> engine((*GetCreatorFunction())());
  return engine != nullptr && engine->DoReconcile(nullptr) >= 0;
}

void reconcile(const ReconcileOptions& options, Report& report) {
  for (const char* kind : {"snapshots", "mappings", "relocation_files", "mounts", "folders"})
    report.document()[kind] = json::array();
  if (const Outcome failure = requireRoot("reconcile", "it unmounts, removes files and talks to the kernel driver"))
    return report.failed(*failure);
  Driver driver;
  if (const Outcome failure = driver.check()) return report.failed(*failure);
  const std::string base = options.base.empty() ? "" : cleanPath(options.base);
  if (base.empty() && !options.base.empty())
    return report.failed({kUsage, options.base, "the working directory is gone", "name a full path"});
  if (const Outcome failure = checkNamedBase(base, driver); !base.empty() && failure) return report.failed(*failure);

  const Remains before = findRemains(driver, base);
  const bool swept = sweep(base, report);
  const Remains after = findRemains(driver, base);
  Removal(before, after, report).tell();
  if (!swept && after.empty()) {
    report.failed(
        {kRefused, kControlNode, "the driver could not be reconciled", "look for MIRELSNAP_SDK in the system log"});
  }
  if (before.empty() && after.strays.empty()) report.print("Nothing is left of dead processes.\n");
}

}  // namespace

void addReconcile(CLI::App& program, CommandLine& line) {
  auto [verb, options] = addVerb<ReconcileOptions>(program, line, "reconcile",
                                                   "Remove what dead processes left, and tell what it was", &reconcile);
  verb.option("--base", "DIR", options->base,
              "A base that a dead process had its snapshots mounted below,\nbesides those of killed runs");
  addJsonOption(verb, options->json);
  verb.footer(
      "Snapshots, mappings, relocation files, mounts and folders of living processes\n"
      "are left alone. Of what is mounted below DIR the snapshots are unmounted, and\n"
      "the binds that a run made; anything else stays and is told of (118), and so do\n"
      "snapshots of dead processes that are mounted elsewhere. A second run says that\n"
      "there is nothing.\n\n" +
      exitCodeHelp({kSuccess, kNotRoot, kNoDriver, kCannotCleanUp, kRefused}));
}

}  // namespace cli
