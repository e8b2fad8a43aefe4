// SPDX-License-Identifier: Apache-2.0
#include "qxtools/MountPointCollection.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

#include "base/Handle.h"
#include "base/MountInfo.h"
#include "base/Paths.h"
#include "qxtools/UnixUtils.h"

namespace UnixUtils {
namespace {

// The kernel's number of the mount that holds `path`; -1 where it does not tell (before 5.8).
int MountIdOf(const char* path) {
  struct statx status;
  if (statx(AT_FDCWD, path, AT_NO_AUTOMOUNT | AT_STATX_DONT_SYNC, STATX_MNT_ID, &status) != 0) return -1;
  if ((status.stx_mask & STATX_MNT_ID) == 0 || status.stx_mnt_id > INT_MAX) return -1;
  return static_cast<int>(status.stx_mnt_id);
}

std::string DeviceText(const char* prefix, std::uint64_t number) {
  return prefix + std::to_string(major(number)) + ":" + std::to_string(minor(number));
}

// The node that the kernel itself would give this device in /dev; empty when it does not tell.
std::string NodeFromSysfs(std::uint64_t number) {
  char target[PATH_MAX];
  const ssize_t size = readlink(DeviceText("/sys/dev/block/", number).c_str(), target, sizeof target);
  if (size <= 0) return {};
  const std::string_view text(target, static_cast<std::size_t>(size));
  std::string name(text.substr(text.rfind('/') + 1));
  std::replace(name.begin(), name.end(), '!', '/');
  return "/dev/" + name;
}

// Opens the block device with this number through the first path that leads to it.
UniqueFd OpenBlockDevice(const std::string& source, std::uint64_t number) {
  for (const std::string& node : {source, DeviceText("/dev/block/", number), NodeFromSysfs(number)}) {
    if (node.empty() || node[0] != '/' || GetBlockDeviceNumber(node.c_str()) != number) continue;
    UniqueFd device(open(node.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (device) return device;
  }
  return {};
}

}  // namespace

SystemMountPointCollection::MountPointInformation::MountPointInformation(std::string folder, std::string root,
                                                                         std::string type, std::string source,
                                                                         std::uint64_t fsDeviceNumber,
                                                                         bool pseudo) noexcept
    : mFolder(std::move(folder)),
      mRoot(std::move(root)),
      mType(std::move(type)),
      mSource(std::move(source)),
      mFsDeviceNumber(fsDeviceNumber),
      mPseudo(pseudo) {}

void SystemMountPointCollection::MountPointInformation::Get() noexcept { ++mReferences; }

bool SystemMountPointCollection::MountPointInformation::Done() noexcept {
  if (--mReferences != 0) return false;
  delete this;
  return true;
}

std::uint64_t SystemMountPointCollection::MountPointInformation::GetDeviceNumber() const noexcept {
  if (major(mFsDeviceNumber) != 0) return mFsDeviceNumber;
  // A file system over several devices (btrfs) has a number of its own; its source then names one of them.
  if (mPseudo || mSource.empty() || mSource[0] != '/') return 0;
  return GetBlockDeviceNumber(mSource.c_str());
}

std::uint32_t SystemMountPointCollection::MountPointInformation::GetBlockSize() const noexcept {
  if (GetDeviceNumber() == 0) return 0;
  const UniqueFd folder(open(mFolder.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  int size = 0;
  if (!folder || ioctl(folder.get(), FIGETBSZ, &size) != 0 || size < 0) return 0;
  return static_cast<std::uint32_t>(size);
}

std::uint64_t SystemMountPointCollection::MountPointInformation::GetDeviceSize() const noexcept {
  const std::uint64_t number = GetDeviceNumber();
  if (number == 0) return 0;
  try {
    const UniqueFd device = OpenBlockDevice(mSource, number);
    std::uint64_t size = 0;
    if (!device || ioctl(device.get(), BLKGETSIZE64, &size) != 0) return 0;
    return size;
  } catch (const std::bad_alloc&) {
    return 0;
  }
}

SystemMountPointCollection* SystemMountPointCollection::GetLocalSystemMountPointCollection() noexcept {
  struct DropReference {
    void operator()(SystemMountPointCollection* collection) const noexcept { collection->Done(); }
  };
  try {
    std::unique_ptr<SystemMountPointCollection, DropReference> collection(new SystemMountPointCollection);
    return collection->read() ? collection.release() : nullptr;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

bool SystemMountPointCollection::read() {
  auto table = readMountInfo(UniqueFd(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)));
  if (!table) return false;
  mMounts.reserve(table->size());
  mEntries.reserve(table->size());
  for (MountLine& line : *table) {
    mMounts.push_back({line.id, line.folder, nullptr});
    if (line.network) continue;
    mEntries.push_back(new MountPointInformation(std::move(line.folder), std::move(line.root), std::move(line.type),
                                                 std::move(line.source), line.device, line.pseudo));
    mMounts.back().entry = mEntries.back();
  }
  return true;
}

SystemMountPointCollection::~SystemMountPointCollection() {
  for (MountPointInformation* entry : mEntries) entry->Done();
}

void SystemMountPointCollection::Get() noexcept { ++mReferences; }

bool SystemMountPointCollection::Done() noexcept {
  if (--mReferences != 0) return false;
  delete this;
  return true;
}

SystemMountPointCollection::MountPointInformation* SystemMountPointCollection::GetAt(std::size_t index) const noexcept {
  if (index >= mEntries.size()) return nullptr;
  mEntries[index]->Get();
  return mEntries[index];
}

SystemMountPointCollection::MountPointInformation* SystemMountPointCollection::FindMountPointFromPath(
    const char* path) const noexcept {
  if (path == nullptr || path[0] == '\0') return nullptr;
  const NarrowText resolved(realpath(path, nullptr));
  if (resolved == nullptr) return nullptr;
  // The kernel's own answer counts; names alone cannot tell a mount from one that another mount hides.
  const Mount* mount = findById(MountIdOf(resolved.get()));
  if (mount == nullptr) mount = findDeepest(resolved.get());
  if (mount == nullptr || mount->entry == nullptr) return nullptr;
  mount->entry->Get();
  return mount->entry;
}

SystemMountPointCollection::MountPointInformation* SystemMountPointCollection::FindMountPointFromPath(
    const wchar_t* path) const noexcept {
  return FindMountPointFromPath(ConvertToANSI(path).get());
}

const SystemMountPointCollection::Mount* SystemMountPointCollection::findById(int id) const noexcept {
  const auto found = std::find_if(mMounts.begin(), mMounts.end(), [&](const Mount& mount) { return mount.id == id; });
  return found == mMounts.end() ? nullptr : &*found;
}

const SystemMountPointCollection::Mount* SystemMountPointCollection::findDeepest(
    const char* resolvedPath) const noexcept {
  const Mount* deepest = nullptr;
  for (const Mount& mount : mMounts) {
    if (!liesWithin(resolvedPath, mount.folder)) continue;
    if (deepest == nullptr || mount.folder.size() >= deepest->folder.size()) deepest = &mount;
  }
  return deepest;
}

}  // namespace UnixUtils
