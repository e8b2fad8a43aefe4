// SPDX-License-Identifier: Apache-2.0
#include "emulator/machine/BlockDevice.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/loop.h>
#include <linux/major.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <vector>

namespace emulator {
namespace {

std::string sysFolder(DeviceNumber number) { return "dev/block/" + number.text(); }

std::optional<DeviceNumber> readNumber(const Kernel& kernel, const std::string& path) {
  DeviceNumber number;
  const std::string text = Kernel::readText(kernel.sys(), path);
  if (std::sscanf(text.c_str(), "%u:%u", &number.majorNum, &number.minorNum) != 2) return std::nullopt;
  return number;
}

std::vector<std::string> entriesOf(int folder, const std::string& path) {
  std::vector<std::string> names;
  const int descriptor = openat(folder, path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return names;
  const UniqueDirectory directory(fdopendir(descriptor));
  if (directory == nullptr) return names;
  while (const dirent* entry = readdir(directory.get())) {
    if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
  }
  return names;
}

std::optional<loop_info64> loopStatus(int descriptor) {
  loop_info64 info{};
  if (ioctl(descriptor, LOOP_GET_STATUS64, &info) != 0) return std::nullopt;
  return info;
}

// The devices right under a device.
std::vector<DeviceNumber> devicesRightUnder(const Kernel& kernel, DeviceNumber number) {
  std::vector<DeviceNumber> under;
  const auto add = [&](const std::optional<DeviceNumber>& device) {
    if (device) under.push_back(*device);
  };
  const std::string folder = sysFolder(number);
  if (faccessat(kernel.sys(), (folder + "/partition").c_str(), F_OK, 0) == 0)
    add(readNumber(kernel, folder + "/../dev"));
  for (const std::string& name : entriesOf(kernel.sys(), folder + "/slaves")) {
    add(readNumber(kernel, folder + "/slaves/" + name + "/dev"));
  }
  if (number.majorNum == LOOP_MAJOR) {
    const UniqueFd loop = kernel.openDevice(S_IFBLK, number, O_RDONLY | O_NONBLOCK);
    if (const auto info = loopStatus(loop.get())) add(numberOf(info->lo_device));
  }
  return under;
}

}  // namespace

Result<BlockDevice> BlockDevice::open(const Kernel& kernel, DeviceNumber number) {
  UniqueFd descriptor = kernel.openDevice(S_IFBLK, number, O_RDONLY);
  if (!descriptor) return failedCall(errno, "cannot open the device " + number.text());
  std::uint64_t bytes = 0;
  int sectorSize = 0;
  if (ioctl(descriptor.get(), BLKGETSIZE64, &bytes) != 0 || ioctl(descriptor.get(), BLKSSZGET, &sectorSize) != 0) {
    return failedCall(errno, "cannot get the size of the device " + number.text());
  }
  if (bytes == 0) return refuse(ENXIO, "the device " + number.text() + " has no medium");
  return BlockDevice(number, std::move(descriptor), bytes, static_cast<unsigned int>(sectorSize));
}

bool isClaimed(const Kernel& kernel, DeviceNumber number) {
  const UniqueFd alone = kernel.openDevice(S_IFBLK, number, O_RDONLY | O_EXCL);
  return !alone && errno == EBUSY;
}

std::set<DeviceNumber> devicesUnder(const Kernel& kernel, DeviceNumber number) {
  std::set<DeviceNumber> all{number};
  for (std::vector<DeviceNumber> open{number}; !open.empty();) {
    const DeviceNumber next = open.back();
    open.pop_back();
    for (const DeviceNumber under : devicesRightUnder(kernel, next)) {
      if (all.insert(under).second) open.push_back(under);
    }
  }
  return all;
}

BackingFile openBackingFile(const Kernel& kernel, const BlockDevice& device, const Caller& caller) {
  BackingFile backing;
  if (device.number().majorNum != LOOP_MAJOR) return backing;
  const auto info = loopStatus(device.descriptor());
  std::string path = Kernel::readText(kernel.sys(), sysFolder(device.number()) + "/loop/backing_file");
  if (!info || path.empty()) return backing;
  path.pop_back();  // the line end
  // The path is one of the emulator's tree or of the caller's, or of neither: only the very file will do.
  const auto isTheFile = [&](const UniqueFd& file) {
    struct stat found;
    return file && fstat(file.get(), &found) == 0 && S_ISREG(found.st_mode) && found.st_dev == info->lo_device &&
           found.st_ino == info->lo_inode;
  };
  UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!isTheFile(file)) file = caller.open(path, O_RDONLY | O_NONBLOCK);
  if (isTheFile(file)) backing = {std::move(file), info->lo_offset};
  return backing;
}

Result<DeviceData> openDeviceData(const Kernel& kernel, const BlockDevice& device, const Caller& caller) {
  BackingFile backing = openBackingFile(kernel, device, caller);
  if (backing.file) return DeviceData{std::move(backing.file), backing.offset, true};
  UniqueFd direct = kernel.openDevice(S_IFBLK, device.number(), O_RDONLY | O_DIRECT);
  if (!direct) return failedCall(errno, "cannot open the device " + device.number().text() + " for direct reading");
  return DeviceData{std::move(direct), 0, false};
}

void writeOut(const BlockDevice& device) {
  sync_file_range(device.descriptor(), 0, 0,
                  SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER);
}

}  // namespace emulator
