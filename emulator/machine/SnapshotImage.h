// SPDX-License-Identifier: Apache-2.0
//
// A snapshot as a disk: an image of a volume on a read-only loop device, with a node of its own.
#pragma once

#include <cstdint>
#include <string>

#include "base/Handle.h"
#include "emulator/machine/DeviceNumber.h"
#include "emulator/machine/Kernel.h"
#include "emulator/machine/Result.h"
#include "emulator/machine/SafetyNet.h"

namespace emulator {

// A new unnamed file in `folder`: it vanishes with its last user, even when the emulator is killed.
Result<UniqueFd> makeNamelessFile(const std::string& folder);

// The path of a volume's snapshot device: "/dev/snap7_3".
std::string snapshotDevicePath(DeviceNumber volume);

// Removes a snapshot's node from a directory, unless it belongs to another device by now.
void removeSnapshotNode(const UniqueFd& folder, DeviceNumber volume, DeviceNumber device);

class SnapshotImage {
 public:
  // Attaches an image to a loop device. The device lives as long as this object and its other users: mounts, and
  // processes that have it open.
  static Result<SnapshotImage> attach(const Kernel& kernel, DeviceNumber volume, UniqueFd image,
                                      unsigned int sectorSize);
  SnapshotImage(SnapshotImage&&) = default;
  SnapshotImage& operator=(SnapshotImage&& other);
  // Removes the node.
  ~SnapshotImage();

  // Creates the node in a directory, which is kept open; a block device node of that name is replaced.
  Answer makeNode(UniqueFd folder);
  void removeNode();

  DeviceNumber volume() const { return mVolume; }
  // The loop device behind the node.
  DeviceNumber device() const { return mDevice; }
  // The image, a sparse file as long as the volume.
  const UniqueFd& file() const { return mFile; }

 private:
  SnapshotImage(SafetyNet* net, DeviceNumber volume, DeviceNumber device, UniqueFd file, UniqueFd loop)
      : mNet(net), mVolume(volume), mDevice(device), mFile(std::move(file)), mLoop(std::move(loop)) {}

  SafetyNet* mNet;
  DeviceNumber mVolume;
  DeviceNumber mDevice;
  UniqueFd mFile;
  UniqueFd mLoop;        // keeps the loop device, which goes with its last user
  UniqueFd mNodeFolder;  // invalid: there is no node
  SafetyNet::Hold mHold;
};

}  // namespace emulator
