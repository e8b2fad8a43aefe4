// SPDX-License-Identifier: Apache-2.0
//
// Real volumes: a sparse image on a loop device, a file system on it, a mount.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "World.h"

namespace test {

// A loop device over a sparse image of `bytes` bytes, detached and removed at the end. Its node is /dev/loopN.
class LoopDevice {
 public:
  explicit LoopDevice(std::uint64_t bytes);
  // Its image lies in `folder`: a device that stands on the folder's file system.
  LoopDevice(std::uint64_t bytes, const std::string& folder);
  ~LoopDevice();
  LoopDevice(const LoopDevice&) = delete;
  LoopDevice& operator=(const LoopDevice&) = delete;

  const std::string& path() const { return mPath; }
  std::wstring wpath() const { return {mPath.begin(), mPath.end()}; }
  unsigned int major() const { return 7; }
  unsigned int minor() const { return mMinor; }
  // The file that it shows.
  const std::string& image() const { return mImage; }
  // Makes a file system; `options` as mkfs takes them.
  void mkfs(const std::string& type, const std::vector<std::string>& options = {}) const;

 private:
  TempDir mDir;
  std::string mImage;
  unsigned int mMinor = 0;
  std::string mPath;
  int mDevice = -1;
};

// A mount for a scope.
class Mounted {
 public:
  Mounted(const std::string& source, const std::string& folder, const std::string& type, unsigned long flags = 0,
          const std::string& data = "");
  ~Mounted();
  Mounted(const Mounted&) = delete;
  Mounted& operator=(const Mounted&) = delete;
  const std::string& folder() const { return mFolder; }

 private:
  std::string mFolder;
};

// A loop device with a file system, mounted on a folder of its own: the usual volume of a test.
class Volume {
 public:
  // Its image lies in `imageFolder`, where one is given.
  Volume(const std::string& type, std::uint64_t bytes, const std::vector<std::string>& mkfsOptions = {},
         const std::string& imageFolder = {});
  ~Volume();
  const std::string& device() const { return mLoop.path(); }
  std::wstring wdevice() const { return mLoop.wpath(); }
  const std::string& folder() const { return mFolder; }
  std::wstring wfolder() const { return {mFolder.begin(), mFolder.end()}; }
  const LoopDevice& loop() const { return mLoop; }

 private:
  LoopDevice mLoop;
  TempDir mDir;
  std::string mFolder;
};

// Runs a program; its exit status, output discarded unless it fails.
int run(const std::vector<std::string>& arguments);

}  // namespace test
