// SPDX-License-Identifier: Apache-2.0
#include "Driver.h"

#include <fcntl.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>

namespace guest {
namespace {

constexpr char kNode[] = "/dev/mirelsnapctl";

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error(what + ": " + std::strerror(errno)); }

struct Descriptor {
  int number;
  ~Descriptor() { close(number); }
};

// Opens the control device, as the library does: its node is made from the numbers that the driver tells.
int openControl() {
  std::ifstream file("/proc/mirelsnap/dev");
  unsigned int majorNum = 0;
  unsigned int minorNum = 0;
  if (!(file >> majorNum >> minorNum)) fail("/proc/mirelsnap/dev");
  struct stat found;
  const dev_t device = makedev(majorNum, minorNum);
  if (stat(kNode, &found) != 0 || found.st_rdev != device) {
    unlink(kNode);
    if (mknod(kNode, S_IFCHR, device) != 0) fail(kNode);
  }
  const int descriptor = open(kNode, O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) fail(kNode);
  return descriptor;
}

Result issued(Command& command) {
  const int error = command.issue();
  return {error, command.header().driverStatus};
}

Result volumeList(unsigned long request, const std::vector<std::string>& devices) {
  Command command(request, static_cast<std::uint32_t>(devices.size()),
                  sizeof(_ioctlCmd) + devices.size() * sizeof(VolumeListEntry) + kDriverTrailerSize);
  for (std::size_t i = 0; i < devices.size(); ++i) {
    const Number number = numberOf(devices[i]);
    command.putRecord(i, VolumeListEntry{number.major, number.minor, 0});
  }
  return issued(command);
}

// Blocks from `start` on, added to the runs.
void add(std::vector<_run>& runs, std::uint64_t start, std::uint64_t count) {
  if (!runs.empty() && runs.back().startBlock + runs.back().numBlocks == start) {
    runs.back().numBlocks += count;
  } else {
    runs.push_back({start, count});
  }
}

// Where the file system says that the file's extents are, written or not; empty when it does not say.
std::vector<_run> extentsOf(int file, std::uint32_t blockSize) {
  constexpr unsigned int kRoom = 512;
  std::vector<char> buffer(sizeof(fiemap) + kRoom * sizeof(fiemap_extent));
  auto* map = reinterpret_cast<fiemap*>(buffer.data());
  map->fm_length = FIEMAP_MAX_OFFSET;
  map->fm_extent_count = kRoom;
  std::vector<_run> runs;
  if (ioctl(file, FS_IOC_FIEMAP, map) != 0) return runs;
  for (unsigned int i = 0; i < map->fm_mapped_extents; ++i) {
    add(runs, map->fm_extents[i].fe_physical / blockSize, map->fm_extents[i].fe_length / blockSize);
  }
  return runs;
}

std::vector<_run> runsOf(const std::string& path, std::uint32_t blockSize) {
  const Descriptor file{open(path.c_str(), O_RDONLY | O_CLOEXEC)};
  int fileBlock = 0;
  struct stat found;
  if (file.number < 0 || ioctl(file.number, FIGETBSZ, &fileBlock) != 0 || fstat(file.number, &found) != 0) fail(path);
  std::vector<_run> runs = extentsOf(file.number, blockSize);
  if (!runs.empty()) return runs;
  const std::uint64_t factor = static_cast<unsigned int>(fileBlock) / blockSize;
  for (int block = 0; block < (found.st_size + fileBlock - 1) / fileBlock; ++block) {
    int physical = block;
    if (ioctl(file.number, FIBMAP, &physical) != 0 || physical == 0) fail(path + " has a hole");
    add(runs, static_cast<std::uint64_t>(physical) * factor, factor);
  }
  return runs;
}

RelocFileMappingEntry mappingOf(const SnapVolume& volume) {
  RelocFileMappingEntry mapping{};
  mapping.appPid = static_cast<std::int32_t>(volume.entry.appPid);
  std::memcpy(mapping.snappedVolumeName, volume.entry.volumeName, kDriverPathSize);
  std::memcpy(mapping.relocFileName, volume.entry.relocFileName, kDriverPathSize);
  return mapping;
}

constexpr std::size_t kMappingLength = sizeof(_ioctlCmd) + sizeof(RelocFileMappingEntry) + kDriverTrailerSize;

}  // namespace

int loadModule(const std::string& parameters) {
  const Descriptor file{open("/mirelsnap.ko", O_RDONLY | O_CLOEXEC)};
  return syscall(SYS_finit_module, file.number, parameters.c_str(), 0) == 0 ? 0 : errno;
}

int unloadModule() { return syscall(SYS_delete_module, "mirelsnap", O_NONBLOCK) == 0 ? 0 : errno; }

bool isLoaded() { return access("/proc/mirelsnap/dev", F_OK) == 0; }

Command::Command(unsigned long request, std::uint32_t requestValue, std::size_t length)
    : mRequest(request), mBytes(length) {
  const std::uint32_t value = static_cast<std::uint32_t>(length) * 2654435761u;
  put(0, _ioctlCmd{0, requestValue, value, (value % 12 + 1234) % 20, static_cast<std::uint32_t>(length), 0});
}

int Command::issue() {
  const Descriptor control{openControl()};
  return ioctl(control.number, mRequest, mBytes.data()) == 0 ? 0 : errno;
}

std::ostream& operator<<(std::ostream& out, const Result& result) {
  return out << "errno " << result.error << " (" << std::strerror(result.error) << "), status " << result.status;
}

Number numberOf(const std::string& device) {
  struct stat found;
  if (stat(device.c_str(), &found) != 0) fail(device);
  return {major(found.st_rdev), minor(found.st_rdev)};
}

std::string snapshotOf(const std::string& device) {
  const Number number = numberOf(device);
  return "/dev/snap" + std::to_string(number.major) + "_" + std::to_string(number.minor);
}

SnapVolume snapOf(const std::string& device, const std::string& relocFile, const std::string& relocDevice,
                  std::uint32_t blockSize) {
  SnapVolume volume;
  const Descriptor opened{open(device.c_str(), O_RDONLY | O_CLOEXEC)};
  std::uint64_t bytes = 0;
  struct stat found;
  if (opened.number < 0 || ioctl(opened.number, BLKGETSIZE64, &bytes) != 0) fail(device);
  if (stat(relocFile.c_str(), &found) != 0) fail(relocFile);
  const Number number = numberOf(device);
  const Number relocNumber = numberOf(relocDevice);
  SnapVolumeEntry& entry = volume.entry;
  entry.numBlocks = bytes / blockSize;
  entry.blockSize = blockSize;
  entry.relocFileSize = static_cast<std::uint32_t>(static_cast<std::uint64_t>(found.st_size) / blockSize);
  entry.hashSize = entry.relocFileSize / 50 + 1;
  entry.appPid = static_cast<std::uint32_t>(getpid());
  entry.volumeMajor = number.major;
  entry.volumeMinor = number.minor;
  entry.relocVolumeMajor = relocNumber.major;
  entry.relocVolumeMinor = relocNumber.minor;
  relocFile.copy(entry.relocFileName, kDriverPathSize - 1);
  device.copy(entry.volumeName, kDriverPathSize - 1);
  entry.independentSnapshotRequest = 1;
  if (device == relocDevice) volume.runs = runsOf(relocFile, blockSize);
  return volume;
}

Command snapCommand(const std::vector<SnapVolume>& volumes) {
  std::size_t length = sizeof(_ioctlCmd) + kDriverTrailerSize;
  for (const SnapVolume& volume : volumes) length += kSnapEntrySize + volume.runs.size() * sizeof(_run);
  Command command(IOC_SNAP, static_cast<std::uint32_t>(volumes.size()), length);
  std::size_t at = sizeof(_ioctlCmd);
  for (const SnapVolume& volume : volumes) {
    SnapVolumeEntry entry = volume.entry;
    entry.numRuns = static_cast<std::uint32_t>(volume.runs.size());
    command.put(at, entry);
    at += sizeof entry;
    for (const _run& run : volume.runs) {
      command.put(at, run);
      at += sizeof run;
    }
    at += kSnapEntryTail;
  }
  return command;
}

Result map(const SnapVolume& volume) {
  Command command(IOC_CREATE_RELOC_FILE_MAPPING, 0, kMappingLength);
  command.putRecord(0, mappingOf(volume));
  return issued(command);
}

Result unmap(const SnapVolume& volume) {
  Command command(IOC_DELETE_RELOC_FILE_MAPPING, 0, kMappingLength);
  RelocFileMappingEntry mapping = mappingOf(volume);
  std::memset(mapping.relocFileName, 0, kDriverPathSize);
  command.putRecord(0, mapping);
  return issued(command);
}

Result snap(const std::vector<SnapVolume>& volumes) {
  for (const SnapVolume& volume : volumes) {
    if (const Result result = map(volume); result.error != 0) return result;
  }
  Command command = snapCommand(volumes);
  return issued(command);
}

Result discard(const std::vector<std::string>& devices) {
  Command command(IOC_SNAP_DISCARD, static_cast<std::uint32_t>(devices.size()),
                  sizeof(_ioctlCmd) + devices.size() * sizeof(DiscardEntry) + kDriverTrailerSize);
  for (std::size_t i = 0; i < devices.size(); ++i) {
    const Number number = numberOf(devices[i]);
    DiscardEntry entry{};
    entry.majorNum = number.major;
    entry.minorNum = number.minor;
    command.putRecord(i, entry);
  }
  return issued(command);
}

Result freeze(const std::vector<std::string>& devices) { return volumeList(IOC_FREEZE, devices); }
Result thaw(const std::vector<std::string>& devices) { return volumeList(IOC_THAW, devices); }
Result stopTracking(const std::vector<std::string>& devices) { return volumeList(IOC_STOP_VTRACK, devices); }

Result check(unsigned long request, const std::string& device) {
  Command command(request, 1, sizeof(_ioctlCmd) + sizeof(VolumeCheckPayload) + kDriverTrailerSize);
  const Number number = numberOf(device);
  command.putRecord(0, VolumeCheckPayload{number.major, number.minor});
  return issued(command);
}

std::uint32_t count(unsigned long request) {
  Command command(request, 0, sizeof(_ioctlCmd) + sizeof(CountPayload));
  if (command.issue() != 0) fail("count");
  return command.header().requestValue;
}

template <class Record>
static std::vector<Record> list(unsigned long request, std::uint32_t room) {
  Command command(request, room, sizeof(_ioctlCmd) + room * sizeof(Record) + kDriverTrailerSize);
  if (command.issue() != 0) fail("list");
  std::vector<Record> records;
  for (std::uint32_t i = 0; i < command.header().requestValue; ++i) records.push_back(command.record<Record>(i));
  return records;
}

std::vector<SnappedVolumeEntry> listSnapped(std::uint32_t room) {
  return list<SnappedVolumeEntry>(IOC_GET_SNAPPED_VOL_DETAILS, room);
}

std::vector<RelocFileMappingEntry> listMappings(std::uint32_t room) {
  return list<RelocFileMappingEntry>(IOC_GET_RELOC_FILE_MAPPING, room);
}

Discarded::~Discarded() {
  for (const std::string& device : mDevices) {
    if (check(IOC_CHECK_VOLUME_SNAPPED, device).status == -2) discard({device});
  }
}

std::vector<std::string> snapshotLines() {
  std::ifstream file("/proc/mirelsnap/snapshots");
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) lines.push_back(line);
  return lines;
}

std::string wordOf(const std::string& line, const std::string& key) {
  std::istringstream words(line);
  for (std::string word; words >> word;) {
    if (word.starts_with(key + "=")) return word.substr(key.size() + 1);
  }
  return "";
}

std::string dumpedState() {
  const std::string name = "/tmp/state";
  Command command(IOC_DUMP_STATE, 0, sizeof(_ioctlCmd) + sizeof(DumpStatePayload));
  DumpStatePayload payload{};
  payload.fileFlag = 1;
  name.copy(payload.fileName, sizeof payload.fileName - 1);
  command.putRecord(0, payload);
  if (const int error = command.issue(); error != 0) return std::strerror(error);
  std::ifstream file(name);
  std::ostringstream text;
  text << file.rdbuf();
  unlink(name.c_str());
  return text.str();
}

}  // namespace guest
