// SPDX-License-Identifier: Apache-2.0
#include "emulator/machine/SnapshotImage.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <linux/major.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "base/Paths.h"
#include "driver/DriverProtocol.h"

namespace emulator {
namespace {

constexpr DeviceNumber kLoopControl{MISC_MAJOR, 237};  // the number is fixed in the kernel
constexpr int kAttempts = 100;

// The numbers of loop device `index`: its minor is not the index where loop devices have partitions.
DeviceNumber loopNumber(const Kernel& kernel, int index) {
  DeviceNumber number{LOOP_MAJOR, static_cast<unsigned int>(index)};
  const std::string text = Kernel::readText(kernel.sys(), "block/loop" + std::to_string(index) + "/dev");
  std::sscanf(text.c_str(), "%u:%u", &number.majorNum, &number.minorNum);
  return number;
}

// The name of a volume's snapshot device in /dev.
std::string nodeName(DeviceNumber volume) { return std::string(lastPart(snapshotDevicePath(volume))); }

loop_config configuration(DeviceNumber volume, const UniqueFd& image, unsigned int sectorSize) {
  loop_config config{};
  config.fd = static_cast<std::uint32_t>(image.get());
  config.block_size = sectorSize;
  config.info.lo_flags = LO_FLAGS_READ_ONLY | LO_FLAGS_AUTOCLEAR;
  std::snprintf(reinterpret_cast<char*>(config.info.lo_file_name), sizeof config.info.lo_file_name,
                "mirelsnap snapshot of %s", volume.text().c_str());
  return config;
}

}  // namespace

Result<UniqueFd> makeNamelessFile(const std::string& folder) {
  UniqueFd file(open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
  if (!file && (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL)) {
    std::string name = folder + "/mirelsnap-XXXXXX";
    file = UniqueFd(mkostemp(name.data(), O_CLOEXEC));
    if (file) unlink(name.c_str());
  }
  if (!file) return failedCall(errno, "cannot create an image in the store " + folder);
  return file;
}

std::string snapshotDevicePath(DeviceNumber volume) {
  return kSnapshotDevicePrefix + std::to_string(volume.majorNum) + "_" + std::to_string(volume.minorNum);
}

void removeSnapshotNode(const UniqueFd& folder, DeviceNumber volume, DeviceNumber device) {
  const std::string name = nodeName(volume);
  struct stat found;
  if (fstatat(folder.get(), name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 && S_ISBLK(found.st_mode) &&
      numberOf(found.st_rdev) == device) {
    unlinkat(folder.get(), name.c_str(), 0);
  }
}

Result<SnapshotImage> SnapshotImage::attach(const Kernel& kernel, DeviceNumber volume, UniqueFd image,
                                            unsigned int sectorSize) {
  const UniqueFd control = kernel.openDevice(S_IFCHR, kLoopControl, O_RDWR);
  if (!control) return failedCall(errno, "cannot open the loop control device");
  loop_config config = configuration(volume, image, sectorSize);
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const int index = ioctl(control.get(), LOOP_CTL_GET_FREE);
    if (index < 0) return failedCall(errno, "no free loop device");
    const DeviceNumber number = loopNumber(kernel, index);
    UniqueFd loop = kernel.openDevice(S_IFBLK, number, O_RDONLY);
    if (loop && ioctl(loop.get(), LOOP_CONFIGURE, &config) == 0)
      return SnapshotImage(kernel.net(), volume, number, std::move(image), std::move(loop));
    // Another process took it first: ask again.
    if (errno != EBUSY && errno != ENXIO) return failedCall(errno, "cannot set up the loop device " + number.text());
  }
  return refuse(EBUSY, "no free loop device: others took it first " + std::to_string(kAttempts) + " times");
}

SnapshotImage& SnapshotImage::operator=(SnapshotImage&& other) {
  removeNode();
  mNet = other.mNet;
  mVolume = other.mVolume;
  mDevice = other.mDevice;
  mFile = std::move(other.mFile);
  mLoop = std::move(other.mLoop);
  mNodeFolder = std::move(other.mNodeFolder);
  mHold = std::move(other.mHold);
  return *this;
}

SnapshotImage::~SnapshotImage() { removeNode(); }

Answer SnapshotImage::makeNode(UniqueFd folder) {
  const std::string name = nodeName(mVolume);
  struct stat found;
  if (fstatat(folder.get(), name.c_str(), &found, AT_SYMLINK_NOFOLLOW) == 0 && S_ISBLK(found.st_mode)) {
    unlinkat(folder.get(), name.c_str(), 0);
  }
  if (mNet != nullptr) mHold = mNet->holdSnapshot(folder, mVolume, mDevice);
  if (mknodat(folder.get(), name.c_str(), S_IFBLK | 0600, mDevice.value()) != 0) {
    return failedCall(errno, "cannot create the node " + snapshotDevicePath(mVolume));
  }
  mNodeFolder = std::move(folder);
  return done();
}

void SnapshotImage::removeNode() {
  if (mNodeFolder) removeSnapshotNode(mNodeFolder, mVolume, mDevice);
  mNodeFolder.reset();
}

}  // namespace emulator
