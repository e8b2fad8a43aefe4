// SPDX-License-Identifier: Apache-2.0
#include "emulator/machine/FileSystem.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <optional>
#include <set>
#include <string>

#include "base/Paths.h"

#include "emulator/machine/BlockDevice.h"

namespace emulator {
namespace {

bool isMountOf(const MountLine& mount, DeviceNumber device, const Caller& viewer) {
  const DeviceNumber shown = numberOf(mount.device);
  if (shown == device) return true;
  // A file system of several devices (btrfs) shows a number of its own: then its source names one of them.
  return shown.majorNum == 0 && mount.source.starts_with('/') && viewer.blockDevice(mount.source) == device;
}

struct Found {
  UniqueFd root;
  std::size_t depth = 0;
};

// Opens a mount of the device as the viewer sees it. Mounts that are covered by others are skipped.
Found findMount(DeviceNumber device, const Caller& viewer) {
  for (const MountLine& mount : viewer.mounts()) {
    if (!isMountOf(mount, device, viewer)) continue;
    UniqueFd root = viewer.open(mount.folder, O_RDONLY | O_NONBLOCK);
    struct statx seen;
    if (root && statx(root.get(), "", AT_EMPTY_PATH, STATX_MNT_ID, &seen) == 0 &&
        seen.stx_mnt_id == static_cast<std::uint64_t>(mount.id)) {
      return {std::move(root), depthOf(mount.folder)};
    }
  }
  return {};
}

// One process of every mount namespace there is.
std::vector<pid_t> viewersOfEveryNamespace(const Kernel& kernel) {
  std::vector<pid_t> viewers;
  std::set<ino_t> seen;
  const int descriptor = openat(kernel.proc(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const UniqueDirectory processes(descriptor < 0 ? nullptr : fdopendir(descriptor));
  while (const dirent* entry = processes == nullptr ? nullptr : readdir(processes.get())) {
    const pid_t process = std::atoi(entry->d_name);
    struct stat space;
    if (process > 0 && fstatat(kernel.proc(), (std::string(entry->d_name) + "/ns/mnt").c_str(), &space, 0) == 0 &&
        seen.insert(space.st_ino).second) {
      viewers.push_back(process);
    }
  }
  return viewers;
}

}  // namespace

DeviceNumber deviceHolding(const UniqueFd& file, const Caller& viewer) {
  struct statx seen;
  if (statx(file.get(), "", AT_EMPTY_PATH, STATX_MNT_ID, &seen) != 0) return {};
  const DeviceNumber number{seen.stx_dev_major, seen.stx_dev_minor};
  if (number.majorNum != 0) return number;
  for (const MountLine& mount : viewer.mounts()) {
    if (static_cast<std::uint64_t>(mount.id) == seen.stx_mnt_id) {
      return viewer.blockDevice(mount.source).value_or(number);
    }
  }
  return number;
}

Result<FileSystem> FileSystem::on(const Kernel& kernel, DeviceNumber device, const Caller& caller) {
  Found found = findMount(device, caller);
  if (!found.root) found = findMount(device, Caller(kernel, getpid()));
  if (!found.root && isClaimed(kernel, device)) {
    for (const pid_t viewer : viewersOfEveryNamespace(kernel)) {
      found = findMount(device, Caller(kernel, viewer));
      if (found.root) break;
    }
    if (!found.root) return refuse(EBUSY, "the device " + device.text() + " is in use, but no mount of it is visible");
  }
  return FileSystem(kernel.net(), device, devicesUnder(kernel, device), std::move(found.root), found.depth);
}

void FileSystem::sync() const {
  if (mounted()) syncfs(mRoot.get());
}

Answer FileSystem::freeze() {
  if (!mounted()) return done();
  if (mNet != nullptr) mHold = mNet->holdFrozen(mRoot);
  if (ioctl(mRoot.get(), FIFREEZE, 0) == 0) return done();
  const int error = errno;
  mHold.release();
  return failedCall(error, "cannot freeze the file system on " + mDevice.text());
}

void FileSystem::thaw() {
  if (mounted()) ioctl(mRoot.get(), FITHAW, 0);
  mHold.release();
}

std::vector<FileSystem*> insideOut(std::vector<FileSystem*> fileSystems) {
  const auto rank = [all = fileSystems](const FileSystem* one) {
    const auto standsOn = [=](const FileSystem* other) { return one->standsOn(other->device()); };
    return std::make_pair(std::count_if(all.begin(), all.end(), standsOn), one->depth());
  };
  std::stable_sort(fileSystems.begin(), fileSystems.end(),
                   [&](const FileSystem* a, const FileSystem* b) { return rank(a) > rank(b); });
  return fileSystems;
}

Standstill::Standstill(std::chrono::milliseconds limit) : mWatch([this, limit] { watch(limit); }) {}

Standstill::~Standstill() {
  end();
  mWatch.join();
}

Answer Standstill::begin(const std::vector<FileSystem*>& fileSystems) {
  for (FileSystem* fileSystem : fileSystems) {
    if (!fileSystem->mounted()) continue;
    if (Answer answer = fileSystem->freeze(); !answer) {
      end();
      return answer;
    }
    const std::lock_guard lock(mMutex);
    mFrozen.push_back(fileSystem);
    if (mEnded) {
      thawAll();  // the time was up while this one was being frozen
      break;
    }
  }
  return done();
}

void Standstill::end() {
  {
    const std::lock_guard lock(mMutex);
    mEnded = true;
    thawAll();
  }
  mChanged.notify_all();
}

void Standstill::watch(std::chrono::milliseconds limit) {
  std::unique_lock lock(mMutex);
  if (mChanged.wait_for(lock, limit, [this] { return mEnded; })) return;
  mExpired = true;
  mEnded = true;
  thawAll();
}

void Standstill::thawAll() {
  for (; !mFrozen.empty(); mFrozen.pop_back()) mFrozen.back()->thaw();
}

}  // namespace emulator
