// SPDX-License-Identifier: Apache-2.0
//
// `mirelsnap reconcile`: removes what dead processes left, and tells what it was.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <set>

#include <mirelsnap/SnapshotEngine.h>

#include "Attempt.h"
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
#include "driver/DriverLock.h"

namespace cli {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using UnixSnapshotCoordinator::IUscSnapshotEngine;

// How long the removal of what is left waits for snapshots that are being taken.
constexpr std::chrono::seconds kPatience{5};

struct ReconcileOptions {
  std::string base;
  bool json = false;
};

// What was found, and what of it is still there afterwards.
class Removal {
 public:
  // `causes` is what the library told of what it could not do.
  Removal(const Remains& before, const Remains& after, const std::vector<Cause>& causes, Report& report)
      : mBefore(before), mAfter(after), mCauses(causes), mReport(report) {}

  void tell() {
    tellSnapshots();
    tellMappings();
    tellRelocationFiles();
    tellTraces();
    tellMounts();
    tellOthers();
    tellFolders();
    tellStrays();
    tellUnknown();
    tellFailedSteps();
  }

 private:
  void tellSnapshots() {
    for (const Remains::Snapshot& snapshot : mBefore.snapshots) {
      const bool left = isIn(mAfter.snapshots, [&](const auto& other) { return other.device == snapshot.device; });
      note("snapshots",
           {{"device", snapshot.device}, {"relocation_file", snapshot.relocationFile}, {"pid", snapshot.process}},
           "snapshot of " + snapshot.device + ", taken by " + dead(snapshot.process), left, snapshot.device,
           "is still snapped by " + dead(snapshot.process) + why("IOC_SNAP_DISCARD"),
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
           left, mapping.device,
           "is still mapped to " + mapping.relocationFile + " for " + dead(mapping.process) +
               why("IOC_DELETE_RELOC_FILE_MAPPING"),
           "look for MIRELSNAP_SDK in the system log");
    }
  }
  void tellRelocationFiles() {
    for (const std::string& file : mBefore.relocationFiles) {
      const bool left = isIn(mAfter.relocationFiles, [&](const auto& other) { return other == file; });
      if (left && isHeld(file)) {
        mReport.document()["relocation_files"].push_back({{"path", file}, {"removed", false}});
        continue;
      }
      note("relocation_files", {{"path", file}}, "relocation file " + file, left, file,
           "the relocation file could not be removed" + becauseOf(mCauses, "unlink", file, file),
           "mend that, then run this again");
    }
  }
  // By a snapshot or a mapping that is told of: then it must stay.
  bool isHeld(const std::string& file) const {
    const auto names = [&](const auto& holder) { return holder.relocationFile == file; };
    return isIn(mAfter.snapshots, names) || isIn(mAfter.mappings, names);
  }
  void tellTraces() {
    for (const Trace& trace : mBefore.traces) {
      const bool left = isIn(mAfter.traces, [&](const Trace& other) { return other.id == trace.id; });
      const bool directory = trace.kind == Trace::Kind::kDirectory;
      const std::string what = directory ? "empty directory for relocation files" : "probe for writability";
      note(directory ? "relocation_directories" : "probe_files", {{"path", trace.path}}, what + " " + trace.path, left,
           trace.path,
           "the " + what + " could not be removed" +
               becauseOf(mCauses, directory ? "rmdir" : "unlink", trace.path, trace.path),
           "mend that, then run this again");
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

  void tellUnknown() {
    std::set<std::string> told;
    for (const std::vector<Failure>* unknown : {&mBefore.unknown, &mAfter.unknown}) {
      for (const Failure& failure : *unknown) {
        if (told.insert(failure.line()).second) mReport.failed(failure);
      }
    }
  }
  // The steps that failed and left nothing that has been told of.
  void tellFailedSteps() {
    std::set<std::string> told;
    for (const Cause& cause : mCauses) {
      if (isOfWhatIsLeft(cause) || !told.insert(cause.text()).second) continue;
      const bool isLocked = cause.what == kControlNode;
      const std::string why = textBeside(cause, kControlNode);
      mReport.failed({kCannotCleanUp, kControlNode, isLocked ? why : "a step of the reconciliation failed: " + why,
                      isLocked ? "run this again when that is done" : "mend that, then run this again"});
    }
  }
  static bool isOfWhatIsLeft(const Cause& cause) {
    return isRemoval(cause) || cause.what == "ioctl(IOC_SNAP_DISCARD)" ||
           cause.what == "ioctl(IOC_DELETE_RELOC_FILE_MAPPING)";
  }
  std::string why(const std::string& request) const { return becauseOf(mCauses, "ioctl", request, ""); }

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
  const std::vector<Cause>& mCauses;
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

// The bases first: the driver keeps what is discarded while it is mounted. What the library's own sweep could not do.
std::vector<Cause> sweep(const std::string& base, Report& report) {
  struct Release {
    void operator()(IUscSnapshotEngine* engine) const { engine->Release(); }
  };
  const Outcome unswept = sweepBases(base);
  if (unswept && unknownBases().empty()) report.failed(*unswept);  // else it is told with what is unknown
  const std::unique_ptr<IUscSnapshotEngine, Release> engine((*GetCreatorFunction())());
  if (engine == nullptr) return {{"the engine", "memory is short"}};
  Attempt last;
  const bool done = engine->DoReconcile(nullptr) >= 0;
  std::vector<Cause> causes = last.causes();
  if (!done && causes.empty()) causes.push_back({"the driver", "could not be reconciled"});
  return causes;
}

// The traces that stand now, each after one more look, and what could not be done. On a frozen file system the removal
// would wait for the thaw.
std::vector<Trace> removeTraces(Driver& driver, const std::string& base, std::vector<Cause>& causes) {
  const std::vector<Trace> traces = findRemains(driver, base).traces;
  if (traces.empty()) return traces;
  // A living process has each of them for a moment while it makes ready for a snapshot. Where the library has waited
  // for it in vain, nobody waits again.
  const bool hasWaited =
      std::any_of(causes.begin(), causes.end(), [](const Cause& cause) { return cause.what == kControlNode; });
  DriverLock lock;
  lock.adoptNode();
  if (lock.take(DriverLock::Kind::kExclusive, hasWaited ? 0s : kPatience) == DriverLock::Outcome::kBusy) {
    causes.push_back({kControlNode, "is locked by a process that takes a snapshot or removes one"});
    return traces;
  }
  for (const Trace& trace : traces) {
    const std::string call = trace.kind == Trace::Kind::kDirectory ? "rmdir(" : "unlink(";
    if (driver.frozen(trace.volume)) {
      causes.push_back({call + trace.path + ")", "not tried, as " + trace.volume + " is frozen"});
    } else if (const int error = removeTrace(trace); error != 0) {
      causes.push_back({call + trace.path + ")", std::strerror(error)});
    }
  }
  return traces;
}

void reconcile(const ReconcileOptions& options, Report& report) {
  for (const char* kind :
       {"snapshots", "mappings", "relocation_files", "relocation_directories", "probe_files", "mounts", "folders"})
    report.document()[kind] = json::array();
  if (const Outcome failure = requireRoot("reconcile", "it unmounts, removes files and talks to the kernel driver"))
    return report.failed(*failure);
  Driver driver;
  if (const Outcome failure = driver.check()) return report.failed(*failure);
  const std::string base = options.base.empty() ? "" : cleanPath(options.base);
  if (base.empty() && !options.base.empty())
    return report.failed({kUsage, options.base, "the working directory is gone", "name a full path"});
  if (const Outcome failure = checkNamedBase(base, driver); !base.empty() && failure) return report.failed(*failure);

  Remains before = findRemains(driver, base);
  std::vector<Cause> causes = sweep(base, report);
  before.traces = removeTraces(driver, base, causes);
  const Remains after = findRemains(driver, base);
  Removal(before, after, causes, report).tell();
  if (before.empty() && report.exitCode() == kSuccess) report.print("Nothing is left of dead processes.\n");
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
      exitCodeHelp({kSuccess, kNotRoot, kNoDriver, kCannotCleanUp}));
}

}  // namespace cli
