// SPDX-License-Identifier: Apache-2.0
//
// An engine with a set, brought to the state in which a test begins. The volumes are real; the job itself is not run:
// its results are put where the worker would have left them.
#pragma once

#include <functional>
#include <list>
#include <string>
#include <vector>

#include "ScriptedDriver.h"
#include "Wide.h"
#include "engine/MirelSnapshotEngine.h"

namespace test {

class FinishedSet {
 public:
  // An engine with an open set, and a driver for it to talk to.
  FinishedSet();
  // Drops what is left of the set and releases the engine.
  ~FinishedSet();
  FinishedSet(const FinishedSet&) = delete;
  FinishedSet& operator=(const FinishedSet&) = delete;

  // Adds the block device `device`, mounted at `folder`; its snapshot is the device `snapshot`. The snapshot's
  // identifier.
  _SSGUIDPLAIN add(const std::string& device, const std::string& folder, const std::string& snapshot = "");
  // The job ends with this result.
  void finish(int snapResult = 0);

  const _SSGUIDPLAIN& id() const { return mId; }
  ScriptedDriver& driver() { return mDriver; }
  MirelSnapSnapshotCoordinator::MirelSnapshotEngine& engine() { return *mEngine; }
  MirelSnapSnapshotCoordinator::MirelSnapshotEngine* operator->() { return mEngine; }

 private:
  ScriptedDriver mDriver;
  MirelSnapSnapshotCoordinator::MirelSnapshotEngine* mEngine;
  _SSGUIDPLAIN mId{};
};

// What `ask` answers in a thread of its own that begins while the engines' lock is held, when `change` is made before
// the lock is let go.
int askedUnderLock(const std::function<int()>& ask, const std::function<void()>& change);
// Whether nobody holds the engines' lock.
bool lockIsFree();

}  // namespace test
