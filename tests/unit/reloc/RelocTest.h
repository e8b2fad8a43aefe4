// SPDX-License-Identifier: Apache-2.0
//
// The world of a relocation test: block devices and mounted file systems as the test says, a scripted driver, the
// driver singleton held once, and the messages of this room.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Interposed.h"
#include "LogCapture.h"
#include "LoopVolume.h"
#include "OwnWorld.h"
#include "ScriptedDriver.h"
#include "World.h"
#include "driver/LinuxSnapLib.h"
#include "reloc/LinuxSnapshotreloc.h"

namespace test {

inline constexpr long kFat = 0x4D44;
inline constexpr long kExt = 0xEF53;
inline constexpr long kXfs = 0x58465342;
inline constexpr long kTmpfs = 0x01021994;

constexpr std::uint64_t gib(std::uint64_t n) { return n << 20; }  // in KB

// What statfs answers for a mount point of the machine.
struct Sizes {
  std::uint64_t availKB;
  std::uint64_t usedKB;
  long type = kTmpfs;
};

// Block devices and a mount table. Mount points are folders of their own; their sizes are what the test says.
class Machine {
 public:
  explicit Machine(ScriptedDriver& driver);

  // A block device node "/dev/NAME".
  std::string device(const std::string& name);
  // Mounts `device` on a new folder and gives it these sizes.
  std::string mount(const std::string& device, const Sizes& sizes);
  // Only a line in the table: sizes are the kernel's.
  void list(const std::string& device, const std::string& folder);
  // statfs on `folder` fails with EIO.
  void hideSizes(const std::string& folder) { mHidden.insert(folder); }
  // Nothing can be written to `folder` from now on.
  void makeReadOnly(const std::string& folder);

  void snapped(const std::string& device) { mSnapped.insert(numberOf(device)); }
  void frozen(const std::string& device) { mFrozen.insert(numberOf(device)); }

 private:
  unsigned int numberOf(const std::string& device);

  std::vector<std::unique_ptr<Node>> mNodes;
  std::vector<std::unique_ptr<TempDir>> mFolders;
  std::vector<std::unique_ptr<Mounted>> mReadOnly;
  std::unique_ptr<ProcFile> mTable;
  std::string mLines;
  std::map<std::string, Sizes> mSizes;
  std::set<std::string> mHidden;
  std::set<unsigned int> mSnapped;
  std::set<unsigned int> mFrozen;
};

// Another name of a device: a link in /dev/disk.
class Alias {
 public:
  Alias(const std::string& name, const std::string& device) : mPath("/dev/disk/" + name) {
    std::filesystem::create_directory("/dev/disk");
    std::filesystem::create_symlink(device, mPath);
  }
  ~Alias() { removeTree("/dev/disk"); }
  Alias(const Alias&) = delete;
  Alias& operator=(const Alias&) = delete;
  const std::string& path() const { return mPath; }

 private:
  std::string mPath;
};

class RelocTest : public testing::Test {
 protected:
  RelocTest();
  ~RelocTest() override;

  // "[priority] text" of every message that neither the driver's commands nor the mount table logged.
  std::vector<std::string> messages();
  // References on the driver singleton that were taken and not given back.
  unsigned int referencesLeft() const { return SnapDriverInterface::mReferenceCount - 1; }

  ScriptedDriver driver;
  LogCapture log;
  Machine machine;
  SnapDriverInterface* const singleton;
};

using Lines = std::vector<std::string>;

// Physical block of every block of a file, 0 for holes.
std::vector<int> physicalBlocks(const std::string& path);

}  // namespace test
