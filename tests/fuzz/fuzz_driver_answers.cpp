// SPDX-License-Identifier: Apache-2.0
//
// A driver that answers anything: counts, statuses, names without an end. Nothing is read or written past the buffer
// that was sent.
#include <sys/stat.h>
#include <sys/syscall.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <mirelsnap/DriverInterface.h>

#include "FuzzWorld.h"
#include "driver/DriverProtocol.h"

namespace {

const std::uint8_t* answer = nullptr;
std::size_t left = 0;

// Takes the next byte of the input; zero behind its end.
std::uint8_t next() {
  if (left == 0) return 0;
  --left;
  return *answer++;
}

// A whole answer for a command: whether it fails, its request value and status, and its payload.
int answerWithInput(void* argument) {
  auto* buffer = static_cast<unsigned char*>(argument);
  _ioctlCmd header;
  std::memcpy(&header, buffer, sizeof header);
  const std::uint32_t length = header.length;
  const std::uint8_t shape = next();
  header.requestValue =
      shape & 1 ? next() % 8U : static_cast<std::uint32_t>(next() << 24 | next() << 16 | next() << 8 | next());
  header.driverStatus = static_cast<std::int8_t>(next());
  std::memcpy(buffer, &header, sizeof header);
  for (std::uint32_t i = sizeof header; i < length && left > 0; ++i) buffer[i] = next();
  if ((shape & 2) == 0) return 0;
  errno = EIO;
  return -1;
}

// Changed runs into an array that is exactly as large as it is said to be.
void readBitmap(SnapDriverInterface& driver, std::wstring& volume) {
  const unsigned int room = next();
  std::vector<_run> runs(room);
  SectorBitmap bitmap(volume, room, runs.data());
  if (driver.GetVtrackBitmap(bitmap) == 0 && bitmap.getNumOfRuns() > room) std::abort();
  bitmap.setNumOfRuns(room);
  driver.UpdateUsedSectorBitmap(bitmap);
}

}  // namespace

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  if (((request >> 8) & 0xFF) == 'S' && (request >> 30) == 3) return answerWithInput(argument);
  return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}

// Names that the fuzzer made up must not remove anything.
extern "C" int unlink(const char*) noexcept { return -1; }
extern "C" int rmdir(const char*) noexcept { return -1; }
extern "C" int remove(const char*) noexcept { return -1; }

// No process of another is looked for by a number that the fuzzer made up.
extern "C" int kill(pid_t pid, int) noexcept { return pid % 2 == 0 ? 0 : -1; }

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  layFuzzWorld();
  static const test::ProcFile device("mirelsnap/dev", "1 3\n");
  static const test::Node volume("/dev/volume", S_IFBLK, 7, 250);
  SnapDriverInterface::Instance();
  setlogmask(LOG_MASK(LOG_EMERG));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  answer = data + 1;
  left = size - 1;
  SnapDriverInterface& driver = *SnapDriverInterface::mInstance;
  std::string name = "/dev/volume";
  std::list<std::wstring> names = {L"/dev/volume"};
  std::wstring wideName = L"/dev/volume";
  unsigned int number = 0;
  std::list<SnappedVolumeInformation> snapped;
  std::list<RelocFileMappingInformation> mappings;
  switch (data[0] % 12) {
    case 0:
      driver.GetDriverVersionDetail(name);
      break;
    case 1:
      driver.GetSnappedVolumeDetails(snapped);
      break;
    case 2:
      driver.GetRelocFileMapping(mappings);
      break;
    case 3:
      driver.IsSnapInProgress(name);
      break;
    case 4:
      driver.UnSnapVolume(&names, false);
      break;
    case 5:
      driver.ReconcileAndCleanup();
      break;
    case 6:
      driver.FreezeVolume(&names);
      driver.ThawVolume(&names);
      break;
    case 8:
      driver.GetVtrackVars(wideName, name, number);
      break;
    case 9:
      readBitmap(driver, wideName);
      break;
    case 10:
      driver.IsVtrackActive(wideName);
      driver.StopVtrack(&names);
      break;
    case 11:
      driver.DumpState(0, 1, wideName, wideName);
      break;
    default:
      driver.IsVolumeSnapped(name);
      driver.IsVolumeFrozen(name);
  }
  return 0;
}
