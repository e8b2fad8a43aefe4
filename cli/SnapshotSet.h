// SPDX-License-Identifier: Apache-2.0
//
// One snapshot set from its start to its end, through the engine's interface as any agent uses it; but live mounts are
// bound here, because each must be kept to itself before another one is bound in it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <mirelsnap/SnapshotEngine.h>

#include "Attempt.h"
#include "ExposedMount.h"
#include "ExposureBase.h"
#include "Failure.h"
#include "Placement.h"
#include "Terminal.h"
#include "VolumeChoice.h"

namespace cli {

// What became of one volume.
struct SnappedVolume {
  std::string device;
  std::vector<std::string> mountPoints;
  std::string snapshotDevice;
  std::string relocationFile;
  std::string exposedAt;  // of its first mount point; empty until it is exposed
  UniqueFd file;          // the relocation file, wherever it is moved to (O_PATH)
};

class SnapshotSet {
 public:
  // Of `binds` one that lies in another comes after it.
  SnapshotSet(Terminal& terminal, std::vector<ChosenVolume> volumes, std::vector<std::string> binds,
              RelocationOptions relocation);
  ~SnapshotSet();
  SnapshotSet(const SnapshotSet&) = delete;
  SnapshotSet& operator=(const SnapshotSet&) = delete;

  // Takes the snapshots of all volumes at one instant.
  Outcome take();
  // Mounts them under `base` (empty: a directory of this process's own).
  Outcome expose(const std::string& base);
  // Unmounts and deletes everything; names what stayed. Does nothing the second time.
  std::vector<Failure> finish();

  const std::string& id() const { return mId; }
  const std::string& base() const { return mBase.path(); }
  const std::vector<SnappedVolume>& volumes() const { return mSnapped; }

 private:
  struct Release {
    template <class T>
    void operator()(T* object) const {
      object->Release();
    }
  };

  Outcome makeEngine();
  Outcome removeRemains();
  Outcome addVolumes();
  Outcome addBinds();
  Outcome setOptions(const _SSGUIDPLAIN& snapshotId, const ChosenVolume& volume);
  Outcome runJob();
  void waitForJob(UnixSnapshotCoordinator::IUscAsync& job);
  void showRelocationFile();
  void readProperties();
  void dropMappings();
  Outcome restrictSnapshots() const;
  Outcome bindLiveMounts();
  Failure snapFailure(int snapResult) const;
  Failure busyFailure() const;
  Failure noRoomFailure(const std::string& because) const;
  Failure refusal(const ChosenVolume& volume, int result) const;
  std::vector<std::string> allMountPoints() const;
  std::vector<Failure> stillMounted() const;
  std::vector<Failure> stillSnapped(const std::vector<Cause>& causes) const;
  std::vector<Failure> snappedAllTheSame() const;
  Failure notDeleted(int result) const;

  Terminal& mTerminal;
  std::vector<ChosenVolume> mVolumes;
  std::vector<std::string> mBinds;
  std::vector<std::unique_ptr<LiveMount>> mLiveMounts;
  RelocationOptions mRelocation;
  std::vector<Placement> mPlacements;  // predicted, for the bar
  std::unique_ptr<UnixSnapshotCoordinator::IUscSnapshotEngine, Release> mEngine;
  _SSGUIDPLAIN mSetId{};
  std::string mId;
  std::vector<_SSGUIDPLAIN> mSnapshotIds;
  std::vector<SnappedVolume> mSnapped;
  ExposureBase mBase;
  std::vector<Cause> mJobCauses;  // what the job told of why it failed
  bool mTaken = false;
  bool mRefused = false;  // the snap command failed: whether it was carried out is open
  bool mExposed = false;
};

}  // namespace cli
