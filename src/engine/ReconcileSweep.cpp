// SPDX-License-Identifier: Apache-2.0
#include "engine/ReconcileSweep.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "base/DirectoryEntry.h"
#include "engine/GetDoneWrapper.h"
#include "engine/MountPath.h"
#include "qxtools/Log.h"
#include "qxtools/MountPointCollection.h"

namespace MirelSnapSnapshotCoordinator {
namespace {

using Collection = UnixUtils::SystemMountPointCollection;
using Entry = GetDoneWrapper<Collection::MountPointInformation>;

void insertAt(PosCntQueue& queue, unsigned int index, const PosCnt& entry) {
  queue.insert(queue.begin() + index, entry);
}

// 0 for a directory.
int checkBase(const char* base) {
  struct stat status;
  if (base == nullptr) return EINVAL;
  if (stat(base, &status) != 0) return errno;
  return S_ISDIR(status.st_mode) ? 0 : EINVAL;
}

// Whether `folder` is `base` or below it: /mnt/snapsX is not under /mnt/snaps. The root never is: no exposure is
// mounted there, and the kernel answers its unmounting by making the whole root file system read-only.
bool isAtOrUnder(const char* folder, const char* base) {
  if (std::strcmp(folder, "/") == 0) return false;
  const std::size_t length = std::strlen(base);
  return std::strncmp(folder, base, length) == 0 && (folder[length] == '\0' || folder[length] == '/');
}

PosCntQueue collectUnder(const Collection& mounts, const char* base) {
  PosCntQueue queue;
  for (unsigned int i = 0; i < mounts.GetCount(); ++i) {
    const Entry mount(mounts.GetAt(i));
    if (!mount || !isAtOrUnder(mount->GetMountFolder(), base)) continue;
    InsertIntoQueue(queue, i, static_cast<unsigned int>(FolderDepth(mount->GetMountFolder())));
  }
  return queue;
}

}  // namespace

void InsertIntoQueue(PosCntQueue& queue, unsigned int position, unsigned int depth) {
  const PosCnt entry{position, depth};
  if (queue.empty()) {
    queue.push_back(entry);
    return;
  }
  if (queue.front().count <= depth) {
    queue.push_front(entry);
    return;
  }
  if (queue.back().count >= depth) {
    queue.push_back(entry);
    return;
  }
  // From here the first entry is deeper and the last one shallower.
  unsigned int low = 0;
  auto high = static_cast<unsigned int>(queue.size());
  unsigned int middle = (low + high) / 2;
  for (;;) {
    if (queue[middle].count == depth) {
      insertAt(queue, middle, entry);
      QX_Zprintf(0, L"%s: Inserting {%u, %u} at %u", "InsertIntoQueue", position, depth, middle);
      return;
    }
    (queue[middle].count < depth ? high : low) = middle;
    if (high - low == 1) break;
    middle = (low + high) / 2;
  }
  insertAt(queue, high, entry);
  // The message shows the last middle, not where the entry went: that is the contract.
  QX_Zprintf(0, L"%s: Inserting {%u, %u} at %u", "InsertIntoQueue", position, depth, middle);
}

void DismountAndDeleteDirectory(const char* folder, unsigned int n) noexcept {
  constexpr char kFunction[] = "DismountAndDeleteDirectory";
  if (folder == nullptr) {
    QX_Zprintf(0, L"%s: WARNING: Null directory name supplied!", kFunction);
    return;
  }
  const DirectoryEntry entry(folder);
  if (const int error = entry.unmount(); error != 0) {
    QX_Zprintf(0, L"%s: %-3u: Failed to un-mount '%s', Error: %d, {%s}", kFunction, n, folder, error,
               std::strerror(error));
    return;
  }
  QX_Zprintf(0, L"%s: %-3u: Successfully un-mounted '%s'", kFunction, n, folder);
  if (const int error = entry.removeDirectory(); error != 0) {
    QX_Zprintf(0, L"%hs: %-3u: Failed to remove directory '%s', Error: %d, {%s}", kFunction, n, folder, error,
               std::strerror(error));
    return;
  }
  QX_Zprintf(0, L"%hs: %-3u: Successfully deleted '%s'", kFunction, n, folder);
}

int DismountAndDeleteAllUnder(const char* base) noexcept try {
  if (const int error = checkBase(base); error != 0) return error;
  const GetDoneWrapper<Collection> mounts(Collection::GetLocalSystemMountPointCollection());
  if (!mounts) return ENOMEM;
  unsigned int n = 0;
  for (const PosCnt& entry : collectUnder(*mounts.get(), base)) {
    const Entry mount(mounts->GetAt(entry.position));
    DismountAndDeleteDirectory(mount->GetMountFolder(), n++);
  }
  return 0;
} catch (const std::bad_alloc&) {
  return ENOMEM;
}

}  // namespace MirelSnapSnapshotCoordinator
