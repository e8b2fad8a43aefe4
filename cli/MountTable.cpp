// SPDX-License-Identifier: Apache-2.0
#include "MountTable.h"

#include <cstdlib>
#include <memory>

#include "base/Handle.h"
#include "engine/GetDoneWrapper.h"
#include "qxtools/MountPointCollection.h"

namespace cli {

using MirelSnapSnapshotCoordinator::GetDoneWrapper;
using UnixUtils::SystemMountPointCollection;

MountTable::MountTable() {
  const GetDoneWrapper<SystemMountPointCollection> table(
      SystemMountPointCollection::GetLocalSystemMountPointCollection());
  if (!table) return;
  for (std::size_t i = 0; i < table->GetCount(); ++i) {
    const GetDoneWrapper<SystemMountPointCollection::MountPointInformation> entry(table->GetAt(i));
    if (!entry) continue;
    mMounts.push_back({entry->GetMountFolder(), entry->GetMountRoot(), entry->GetMountFileSystem(),
                       entry->GetMountSource(), entry->GetDeviceNumber()});
  }
}

std::optional<Mount> MountTable::at(const std::string& folder) const {
  for (auto mount = mMounts.rbegin(); mount != mMounts.rend(); ++mount) {
    if (mount->folder == folder) return *mount;
  }
  return std::nullopt;
}

std::optional<Mount> MountTable::holding(const std::string& path) const {
  const Mount* best = nullptr;
  for (const Mount& mount : mMounts) {
    if (liesWithin(path, mount.folder) && (best == nullptr || mount.folder.size() >= best->folder.size()))
      best = &mount;
  }
  return best == nullptr ? std::nullopt : std::optional<Mount>(*best);
}

std::vector<Mount> MountTable::of(std::uint64_t device) const {
  std::vector<Mount> found;
  for (const Mount& mount : mMounts) {
    if (device != 0 && mount.device == device) found.push_back(mount);
  }
  return found;
}

std::vector<Mount> MountTable::under(const std::string& folder) const {
  std::vector<Mount> found;
  for (const Mount& mount : mMounts) {
    if (liesWithin(mount.folder, folder)) found.push_back(mount);
  }
  return found;
}

bool isWhole(const Mount& mount) { return mount.root == "/"; }

std::string resolved(const std::string& path) {
  const std::unique_ptr<char, FreeMemory> real(realpath(path.c_str(), nullptr));
  return real == nullptr ? path : std::string(real.get());
}

}  // namespace cli
