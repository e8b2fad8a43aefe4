// SPDX-License-Identifier: Apache-2.0
//
// What the driver would make of a volume: a second block device that holds the volume as it is now.
#pragma once

#include <string>

#include "LoopVolume.h"

namespace test {

// Freezes the file system at `folder`, copies the image of `live` to a loop device of its own, and makes the node
// /dev/snapMAJOR_MINOR, named after `live`, that leads to the copy. Gone with the object.
class SnapshotDevice {
 public:
  SnapshotDevice(const LoopDevice& live, const std::string& folder);
  explicit SnapshotDevice(const Volume& volume) : SnapshotDevice(volume.loop(), volume.folder()) {}

  const std::string& path() const { return mNode.path(); }
  std::wstring wpath() const { return {path().begin(), path().end()}; }

 private:
  LoopDevice mCopy;
  Node mNode;
};

}  // namespace test
