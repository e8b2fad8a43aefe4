// SPDX-License-Identifier: Apache-2.0
#include "RelocTest.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>

#include "base/Handle.h"

namespace test {
namespace {

constexpr unsigned int kMajor = 240;  // for local use

// What the driver's commands and the system information say on the way.
const char* const kOtherRooms[] = {"The volume is ",
                                   "major-minor remained same.\n",
                                   "User selected VolumeName: ",
                                   "statbuf.f_blocks: ",
                                   "BlockSize: ",
                                   "TotalSize: ",
                                   "Unable to stat the mountpoint: ",
                                   "i->dir: ",
                                   "MountPoint: ",
                                   "MountName: ",
                                   "DirName: ",
                                   "Filename found: ",
                                   "Unable to read directory: ",
                                   "Error 2 opening dir: ",
                                   "Error 20 opening dir: "};

bool isOurs(const std::string& text) {
  for (const char* other : kOtherRooms) {
    if (text.starts_with(other)) return false;
  }
  return true;
}

ScriptedDriver::Script answerState(const std::set<unsigned int>& minors, std::int32_t yes, std::int32_t no) {
  return [&minors, yes, no](std::byte* buffer, std::size_t) {
    VolumeCheckPayload volume;
    std::memcpy(&volume, buffer + sizeof(_ioctlCmd), sizeof volume);
    const std::int32_t status = volume.majorNum == kMajor && minors.count(volume.minorNum) != 0 ? yes : no;
    std::memcpy(buffer + offsetof(_ioctlCmd, driverStatus), &status, sizeof status);
    return 0;
  };
}

}  // namespace

Machine::Machine(ScriptedDriver& driver) : mTable(std::make_unique<ProcFile>("mounts", "")) {
  driver.on(IOC_CHECK_VOLUME_SNAPPED, answerState(mSnapped, -2, -4));
  driver.on(IOC_CHECK_VOLUME_FROZEN, answerState(mFrozen, -6, -7));
  hooks.statfs = [this](const char* path, struct statfs* sizes) -> std::optional<int> {
    if (mHidden.count(path) != 0) return EIO;
    const auto known = mSizes.find(path);
    if (known == mSizes.end()) return std::nullopt;
    *sizes = {};
    sizes->f_type = known->second.type;
    sizes->f_bsize = 1024;
    sizes->f_blocks = known->second.availKB + known->second.usedKB;
    sizes->f_bfree = known->second.availKB;
    return 0;
  };
}

std::string Machine::device(const std::string& name) {
  const auto minor = static_cast<unsigned int>(mNodes.size()) + 1;
  mNodes.push_back(std::make_unique<Node>("/dev/" + name, S_IFBLK, kMajor, minor));
  return mNodes.back()->path();
}

std::string Machine::mount(const std::string& device, const Sizes& sizes) {
  mFolders.push_back(std::make_unique<TempDir>());
  const std::string& folder = mFolders.back()->path();
  mSizes[folder] = sizes;
  list(device, folder);
  return folder;
}

void Machine::list(const std::string& device, const std::string& folder) {
  mLines += device + " " + folder + " ext4 rw 0 0\n";
  writeFile("/proc/mounts", mLines);
}

void Machine::makeReadOnly(const std::string& folder) {
  mReadOnly.push_back(std::make_unique<Mounted>("readonly", folder, "tmpfs", MS_RDONLY));
}

unsigned int Machine::numberOf(const std::string& device) {
  struct stat node {};
  if (stat(device.c_str(), &node) != 0) throw std::runtime_error("no device " + device);
  return minor(node.st_rdev);
}

RelocTest::RelocTest() : machine(driver), singleton(SnapDriverInterface::Instance()) {
  log.openMask();  // making the singleton narrows it
}

RelocTest::~RelocTest() {
  hooks = {};
  while (SnapDriverInterface::mReferenceCount != 0) SnapDriverInterface::releaseInstance();
}

std::vector<std::string> RelocTest::messages() {
  std::vector<std::string> found;
  for (const LogLine& line : log.lines()) {
    if (isOurs(line.text)) found.push_back("[" + std::to_string(line.priority) + "] " + line.text);
  }
  return found;
}

std::vector<int> physicalBlocks(const std::string& path) {
  const UniqueFd file(open(path.c_str(), O_RDONLY));
  struct stat status {};
  int blockSize = 0;
  if (!file || fstat(file.get(), &status) != 0 || ioctl(file.get(), FIGETBSZ, &blockSize) != 0) {
    throw std::runtime_error("cannot examine " + path);
  }
  std::vector<int> blocks;
  for (off_t i = 0; i * blockSize < status.st_size; ++i) {
    auto block = static_cast<int>(i);
    if (ioctl(file.get(), FIBMAP, &block) != 0) throw std::runtime_error("cannot map " + path);
    blocks.push_back(block);
  }
  return blocks;
}

}  // namespace test
