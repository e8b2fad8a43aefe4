// SPDX-License-Identifier: Apache-2.0
//
// An ext4 volume that is mounted by a device node, and on a folder, of any name.
#pragma once

#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "LoopVolume.h"

namespace test {

class NamedVolume {
 public:
  explicit NamedVolume(const std::string& device, const std::string& folder = "volume")
      : mNode(device, S_IFBLK, mLoop.major(), mLoop.minor()),
        mFolder(made(folder)),
        mMounted(device, mFolder, "ext4") {}

  const std::string& device() const { return mNode.path(); }
  const std::string& folder() const { return mFolder; }
  const LoopDevice& loop() const { return mLoop; }

 private:
  std::string made(const std::string& folder) const {
    mLoop.mkfs("ext4");
    std::filesystem::create_directory(mDir / folder);
    return mDir / folder;
  }

  LoopDevice mLoop{32 << 20};
  TempDir mDir;
  Node mNode;
  std::string mFolder;
  Mounted mMounted;
};

}  // namespace test
