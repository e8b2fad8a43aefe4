// SPDX-License-Identifier: Apache-2.0
#include "VolumeCheck.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "Wide.h"
#include "base/Handle.h"
#include "driver/VolumeRecords.h"

namespace cli {
namespace {

constexpr char kNotToDriver[] = "the driver cannot be given this name, which is not ASCII";

// The engine hands its wide names on, and of each character the low 8 bits reach the driver.
bool reachesDriver(const std::string& name) { return WStringToString(wide(name)) == name; }

Failure unsupported(const ChosenVolume& volume, const std::string& cause, const std::string& advice) {
  return {kVolumeNotSupported, volume.device, cause, advice};
}

// Links to the device do not help: the mount table resolves them.
Failure unspeakable(const ChosenVolume& volume) {
  return unsupported(volume, kNotToDriver,
                     "make a device node with an ASCII name (mknod /dev/NAME b " +
                         std::to_string(major(volume.number)) + " " + std::to_string(minor(volume.number)) +
                         ") and mount the volume by that");
}

// Why the size of the device cannot be read; empty when it can.
std::string sizeProblem(const ChosenVolume& volume) {
  struct stat status {};
  if (stat(volume.device.c_str(), &status) != 0) return std::strerror(errno);
  if (!S_ISBLK(status.st_mode) || status.st_rdev != volume.number) return "this path leads to something else";
  const UniqueFd device(open(volume.device.c_str(), O_RDONLY | O_CLOEXEC));
  std::uint64_t size = 0;
  if (!device || ioctl(device.get(), BLKGETSIZE64, &size) != 0) return std::strerror(errno);
  return size == 0 ? "it is 0 bytes" : "";
}

}  // namespace

Outcome checkVolume(const ChosenVolume& volume) {
  if (!reachesDriver(volume.device)) return unspeakable(volume);
  if (!isDecodable(volume.mountPoint))
    return unsupported(volume, "is mounted at " + volume.mountPoint + ", " + kUndecodable, kUndecodableAdvice);
  if (const std::string problem = sizeProblem(volume); !problem.empty())
    return unsupported(volume, "its size cannot be read: " + problem, "check the device");
  return std::nullopt;
}

Outcome checkVolumes(const std::vector<ChosenVolume>& volumes) {
  for (const ChosenVolume& volume : volumes) {
    if (Outcome failure = checkVolume(volume)) return failure;
  }
  return std::nullopt;
}

Outcome checkRelocationMount(const RelocationOptions& options) {
  if (reachesDriver(options.mountPoint)) return std::nullopt;
  return Failure{kNoRoom, options.mountPoint, kNotToDriver,
                 "name another --reloc-mount: a bind mount at a folder with an ASCII name will do"};
}

}  // namespace cli
