// SPDX-License-Identifier: Apache-2.0
//
// What the registry's tests arrange: identifiers, held references, small volumes.
#pragma once

#include <sys/mount.h>
#include <sys/sysmacros.h>

#include <filesystem>
#include <memory>
#include <string>

#include "LoopVolume.h"
#include "Wide.h"
#include "engine/GuardedSnapshotSetParamsArray.h"

namespace test {

using MirelSnapSnapshotCoordinator::LinuxGuardedSnapshotSetParamsArray;
using MirelSnapSnapshotCoordinator::MirelMountVolumeParams;
using MirelSnapSnapshotCoordinator::MirelSnapshotSetParams;
using MirelSnapSnapshotCoordinator::MirelSnapshotVolumeParams;

// An identifier of its own for each number above 0.
inline _SSGUIDPLAIN guid(std::uint8_t number) {
  _SSGUIDPLAIN id{};
  id.Data4[7] = number;
  return id;
}

struct DropReference {
  template <class T>
  void operator()(T* object) const {
    object->Done();
  }
};
// One reference, dropped at the end.
template <class T>
using Held = std::unique_ptr<T, DropReference>;
using HeldVolume = Held<MirelSnapshotVolumeParams>;
using HeldSet = Held<MirelSnapshotSetParams>;

inline HeldSet newSet(std::uint8_t number = 1) {
  return HeldSet(MirelSnapshotSetParams::CreateSnapshotSetParams(guid(number)));
}

inline std::string directory(const std::string& path) {
  std::filesystem::create_directories(path);
  return path;
}

// A small ext4 volume.
struct SmallVolume : Volume {
  SmallVolume() : Volume("ext4", 4 << 20, {"-b", "1024"}) {}
  std::uint64_t number() const { return makedev(7, loop().minor()); }
};

}  // namespace test
