// SPDX-License-Identifier: Apache-2.0
#include "emulator/machine/SnapshotTaking.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <optional>

#include "emulator/machine/FileSystem.h"
#include "emulator/machine/SparseCopy.h"

namespace emulator {
namespace {

// One volume with everything opened that is needed: while file systems are frozen, nothing is looked up.
struct Source {
  BlockDevice device;
  FileSystem fileSystem;
  DeviceData data;
  UniqueFd image;
};

DeviceNumber deviceOfFolder(const Kernel& kernel, const std::string& folder) {
  const UniqueFd opened(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  return deviceHolding(opened, Caller(kernel, getpid()));
}

// The first store that lies on none of the devices that are, or will be, frozen.
Result<std::string> chooseStore(const Kernel& kernel, const SnapshotRequest& request) {
  for (const std::string& store : request.stores) {
    if (access(store.c_str(), W_OK) != 0) continue;
    const std::set<DeviceNumber> under = devicesUnder(kernel, deviceOfFolder(kernel, store));
    const auto isUnder = [&](DeviceNumber device) { return under.contains(device); };
    if (std::none_of(request.volumes.begin(), request.volumes.end(), isUnder) &&
        std::none_of(request.frozen.begin(), request.frozen.end(), isUnder)) {
      return store;
    }
  }
  return refuse(EDEADLK, "the store " + request.stores.front() +
                             " lies on a volume to be frozen, or is not writable; choose another with --store");
}

Result<Source> openSource(const Kernel& kernel, const Caller& caller, const SnapshotRequest& request,
                          DeviceNumber volume, const std::string& store) {
  auto device = BlockDevice::open(kernel, volume);
  if (!device) return refusalOf(device);
  auto fileSystem = FileSystem::on(kernel, volume, caller);
  if (!fileSystem) return refusalOf(fileSystem);
  for (const DeviceNumber frozen : request.frozen) {
    if (fileSystem->standsOn(frozen)) {
      return refuse(EDEADLK, "the volume " + volume.text() + " lies on " + frozen.text() + ", which is frozen");
    }
  }
  auto data = openDeviceData(kernel, *device, caller);
  if (!data) return refusalOf(data);
  auto image = makeNamelessFile(store);
  if (!image) return refusalOf(image);
  return Source{std::move(*device), std::move(*fileSystem), std::move(*data), std::move(*image)};
}

Result<std::vector<Source>> openSources(const Kernel& kernel, const Caller& caller, const SnapshotRequest& request) {
  auto store = chooseStore(kernel, request);
  if (!store) return refusalOf(store);
  std::vector<Source> sources;
  for (const DeviceNumber volume : request.volumes) {
    auto source = openSource(kernel, caller, request, volume, *store);
    if (!source) return refusalOf(source);
    sources.push_back(std::move(*source));
  }
  return sources;
}

Answer copySources(const std::vector<Source>& sources, const std::function<int()>& stop) {
  std::vector<SparseCopy> copies;
  for (const Source& source : sources) {
    const DeviceData& data = source.data;
    copies.push_back({data.file.get(), data.offset, source.device.bytes(), data.hasHoles, source.image.get()});
  }
  const CopyResult result = copyAll(copies, stop);
  if (result.error == 0) return done();
  const std::string volume = sources[result.copy].device.number().text();
  switch (result.error) {
    case ETIMEDOUT:
      return refuse(ETIMEDOUT, "copying took longer than the volumes may stay frozen; see --freeze-limit");
    case ECANCELED:
      return refuse(ECANCELED, "the emulator is shutting down");
    case ENOSPC:
      return refuse(ENOSPC, "the store has no room for the image of " + volume);
    default:
      return failedCall(result.error, (result.whileWriting ? "cannot write the image of " : "cannot read ") + volume);
  }
}

// Says in `taken` when, and how long the volumes stood still.
Answer copyAtOneInstant(std::vector<Source>& sources, const SnapshotRequest& request,
                        const std::atomic<bool>& cancelled, TakenSnapshots& taken) {
  std::vector<FileSystem*> toFreeze;
  for (Source& source : sources) {
    source.fileSystem.sync();  // leaves little to write while frozen
    writeOut(source.device);
    if (!request.frozen.contains(source.device.number())) toFreeze.push_back(&source.fileSystem);
  }
  Standstill standstill(request.limit);
  const auto start = std::chrono::steady_clock::now();
  if (Answer answer = standstill.begin(insideOut(toFreeze)); !answer) return answer;
  taken.instant = std::chrono::system_clock::now();
  Answer answer = copySources(sources, [&] { return standstill.expired() ? ETIMEDOUT : cancelled ? ECANCELED : 0; });
  standstill.end();
  taken.frozen = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start);
  if (answer && standstill.expired()) {
    answer = refuse(ETIMEDOUT, "the volumes could not be kept frozen long enough; see --freeze-limit");
  }
  return answer;
}

}  // namespace

Result<TakenSnapshots> takeSnapshots(const Kernel& kernel, const Caller& caller, const SnapshotRequest& request,
                                     const std::atomic<bool>& cancelled) {
  // Opened while the caller certainly exists: it may be killed during the copy.
  const UniqueFd folder = caller.open("/dev", O_PATH | O_DIRECTORY);
  if (!folder) return failedCall(errno, "cannot open the caller's /dev");
  auto sources = openSources(kernel, caller, request);
  if (!sources) return refusalOf(sources);
  TakenSnapshots taken;
  if (Answer answer = copyAtOneInstant(*sources, request, cancelled, taken); !answer) return refusalOf(answer);

  for (Source& source : *sources) {
    auto image =
        SnapshotImage::attach(kernel, source.device.number(), std::move(source.image), source.device.sectorSize());
    if (!image) return refusalOf(image);
    taken.images.push_back(std::move(*image));
    UniqueFd nodeFolder(fcntl(folder.get(), F_DUPFD_CLOEXEC, 0));
    if (!nodeFolder) return failedCall(errno, "cannot duplicate the descriptor of the caller's /dev");
    if (Answer answer = taken.images.back().makeNode(std::move(nodeFolder)); !answer) return refusalOf(answer);
  }
  return taken;
}

}  // namespace emulator
