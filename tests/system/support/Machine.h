// SPDX-License-Identifier: Apache-2.0
//
// A small machine of its own: a root file system on a loop device with the shipped programs on it, and nothing else but
// what a test puts or mounts there. What runs in it sees no other volume.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "LoopVolume.h"
#include "Session.h"

namespace test {

class Machine {
 public:
  Machine();
  Machine(const Machine&) = delete;
  Machine& operator=(const Machine&) = delete;

  // The folder of this world where the machine's `path` is.
  std::string operator/(const std::string& path) const { return mDisk.folder() + path; }
  const std::string& device() const { return mDisk.device(); }
  // Puts a program of this world, with its libraries, into the machine, at the same path.
  void install(const std::string& program);
  // For what is to run in the machine.
  StartOptions inside(StartOptions options = {}) const {
    options.root = mDisk.folder();
    return options;
  }

 private:
  void copy(const std::string& file);

  const Volume mDisk{"ext4", 400 << 20};
  std::vector<std::unique_ptr<Mounted>> mMounts;
};

}  // namespace test
