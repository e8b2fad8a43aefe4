// SPDX-License-Identifier: Apache-2.0
//
// The mounts that an exposure makes, shallowest first.
#include <cstdlib>
#include <cstring>
#include <new>

#include "engine/MirelSnapshotEngine.h"
#include "engine/MountPath.h"
#include "qxtools/UnixUtils.h"

namespace MirelSnapSnapshotCoordinator {
namespace {

using Queue = MirelSnapshotEngine::MountPointInfoWithFolderDepthQueue;

// Answered for input that is not added. It is positive, so the exposure does not notice: that is the contract.
constexpr int kNotAdded = 0x7FFFFFFD;

// Where an entry of this depth goes. Entries of equal depth keep no particular order.
int positionFor(const Queue& queue, int depth) {
  const int size = static_cast<int>(queue.size());
  if (queue.empty() || queue.front().depth >= depth) return 0;
  if (depth >= queue.back().depth) return size;
  int low = 0;
  int high = size;
  for (int middle = (low + high) / 2; high - low > 1; middle = (low + high) / 2) {
    const int there = queue[static_cast<std::size_t>(middle)].depth;
    if (there == depth) return middle;
    (there < depth ? low : high) = middle;
  }
  return high;
}

}  // namespace

void MirelSnapshotEngine::MountPointInfoWithFolderDepth::cleanup() {
  std::free(target);
  std::free(device);
  std::free(fsType);
  std::free(base);
  target = device = fsType = base = nullptr;
  depth = -1;
  volumeIndex = static_cast<std::uint32_t>(-1);
}

void MirelSnapshotEngine::MountPointInfoWithFolderDepthQueue::clear() {
  for (MountPointInfoWithFolderDepth& entry : *this) entry.cleanup();
  std::deque<MountPointInfoWithFolderDepth>::clear();
}

int MirelSnapshotEngine::InsertIntoInternalShallowFirstSortedQueue(const char* target, const char* device,
                                                                   const char* fsType, int volumeIndex,
                                                                   int mountPointIndex) {
  if (target == nullptr || device == nullptr || fsType == nullptr) return kNotAdded;
  const int depth = FolderDepth(target);
  if (depth < 1) return kNotAdded;

  UnixUtils::NarrowText ownTarget(strdup(target));
  UnixUtils::NarrowText ownDevice(strdup(device));
  UnixUtils::NarrowText ownType(strdup(fsType));
  UnixUtils::NarrowText ownBase(strdup(mMountPointBase.c_str()));
  if (!ownTarget || !ownDevice || !ownType || !ownBase) return E_OUTOFMEMORY;
  const int position = positionFor(mMountPointQueue, depth);
  try {
    mMountPointQueue.insert(
        mMountPointQueue.begin() + position,
        {depth, static_cast<std::uint32_t>(volumeIndex), static_cast<std::uint32_t>(mountPointIndex), ownTarget.get(),
         ownDevice.get(), ownType.get(), ownBase.get()});
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
  // The entry owns its strings from here on.
  static_cast<void>(ownTarget.release());
  static_cast<void>(ownDevice.release());
  static_cast<void>(ownType.release());
  static_cast<void>(ownBase.release());
  return position;
}

}  // namespace MirelSnapSnapshotCoordinator
