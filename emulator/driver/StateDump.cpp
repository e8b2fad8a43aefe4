// SPDX-License-Identifier: Apache-2.0
//
// The driver's state as text: the dump, and a line a snapshot.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <set>
#include <sstream>

#include "base/Paths.h"

#include "emulator/driver/EmulatedDriver.h"
#include "emulator/machine/BlockDevice.h"

namespace emulator {
namespace {

constexpr std::int8_t kIntoFile = 1;

// "process 812", and whether it still is.
std::string ownerText(const Kernel& kernel, std::int64_t process) {
  const std::string number = std::to_string(process);
  const bool lives = faccessat(kernel.proc(), number.c_str(), F_OK, 0) == 0;
  return "process " + number + (lives ? "" : " (gone)");
}

// Blanks and backslashes in octal, as the kernel writes names into such files.
std::string escaped(const std::string& name) {
  std::string text;
  for (const char letter : name) {
    if (std::string_view(" \t\n\\").find(letter) == std::string_view::npos) {
      text += letter;
    } else {
      char octal[8];
      std::snprintf(octal, sizeof octal, "\\%03o", static_cast<unsigned char>(letter));
      text += octal;
    }
  }
  return text;
}

// Seconds since 1970, with nine digits behind the point.
std::string secondsOf(std::chrono::system_clock::time_point instant) {
  const auto since = std::chrono::duration_cast<std::chrono::nanoseconds>(instant.time_since_epoch()).count();
  char text[40];
  std::snprintf(text, sizeof text, "%lld.%09lld", static_cast<long long>(since / 1000000000),
                static_cast<long long>(since % 1000000000));
  return text;
}

Answer writeText(const UniqueFd& file, const std::string& name, const std::string& text) {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t written = write(file.get(), text.data() + done, text.size() - done);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return failedCall(written < 0 ? errno : ENOSPC, "cannot write the file " + name);
    done += static_cast<std::size_t>(written);
  }
  return done();
}

}  // namespace

std::string EmulatedDriver::snapshotLines() const {
  constexpr std::uint64_t kKeptBlock = 4096;
  std::ostringstream text;
  for (const Snapped& snapped : mSnapped) {
    const SnapVolumeEntry& entry = snapped.entry;
    text << "volume=" << snapped.image.volume().text() << " name=" << escaped(textOf(entry.volumeName))
         << " owner=" << entry.appPid
         << " state=snapped kept=0 of=" << std::uint64_t{entry.relocFileSize} * entry.blockSize / kKeptBlock
         << " memory=0 frozen_us=" << snapped.frozen.count() << " instant=" << secondsOf(snapped.instant) << '\n';
  }
  return text.str();
}

std::string EmulatedDriver::describeState() const {
  std::ostringstream text;
  const auto heading = [&](const char* what, std::size_t count) { text << what << ": " << count << '\n'; };
  text << "version: " << mSettings.version << "\nlog level: " << mLogLevel << '\n';

  heading("snapped volumes", mSnapped.size());
  for (const Snapped& snapped : mSnapped) {
    const SnapVolumeEntry& entry = snapped.entry;
    const DeviceNumber relocVolume{entry.relocVolumeMajor, entry.relocVolumeMinor};
    text << "  " << snapped.image.volume().text() << ' ' << textOf(entry.volumeName) << ": " << entry.numBlocks
         << " blocks of " << entry.blockSize << " bytes, of " << ownerText(mKernel, entry.appPid)
         << ", relocation file " << textOf(entry.relocFileName) << " of " << entry.relocFileSize << " blocks on "
         << relocVolume.text() << ", snapshot " << snapshotDevicePath(snapped.image.volume()) << '\n';
  }
  heading("mappings", mMappings.size());
  for (const Mapping& mapping : mMappings) {
    text << "  " << mapping.volumeName << ": " << mapping.relocFileName << ", of "
         << ownerText(mKernel, mapping.process) << '\n';
  }
  heading("frozen volumes", mFrozen.size());
  for (const FileSystem& frozen : mFrozen) text << "  " << frozen.device().text() << '\n';
  const auto isTracked = [](const Snapped& snapped) { return snapped.tracking.has_value(); };
  heading("tracked volumes", static_cast<std::size_t>(std::count_if(mSnapped.begin(), mSnapped.end(), isTracked)));
  for (const Snapped& snapped : mSnapped) {
    if (!snapped.tracking) continue;
    text << "  " << snapped.image.volume().text() << ": " << snapped.tracking->guid << ", sequence number "
         << snapped.tracking->sequenceNumber << ", " << snapped.tracking->used.size() << " runs in use\n";
  }
  return text.str();
}

// A write to a frozen file system would wait for the thaw, and the thaw command would wait for this one.
Answer EmulatedDriver::refuseFrozenPlace(const UniqueFd& place, const Caller& caller) const {
  const std::set<DeviceNumber> under = devicesUnder(mKernel, deviceHolding(place, caller));
  for (const FileSystem& frozen : mFrozen) {
    if (under.contains(frozen.device())) {
      return refuse(EDEADLK, "the file lies on the volume " + frozen.device().text() + ", which is frozen");
    }
  }
  return done();
}

Answer EmulatedDriver::dumpState(const Caller& caller, CommandBuffer& buffer) {
  const auto payload = buffer.record<DumpStatePayload>(0);
  const std::string text = describeState();
  if (payload.fileFlag != kIntoFile) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) mMessages.say(line);
    return done();
  }
  const std::string name = textOf(payload.fileName);
  UniqueFd place = caller.open(name, O_PATH);
  const bool exists = place.valid();
  struct stat found;
  if (exists && (fstat(place.get(), &found) != 0 || !S_ISREG(found.st_mode))) {
    return refuse(EINVAL, name + " is not a regular file");
  }
  if (!exists) place = caller.open(std::string(folderOf(name)), O_PATH | O_DIRECTORY);
  if (!place) return failedCall(errno, "cannot open the directory of " + name);
  if (Answer answer = refuseFrozenPlace(place, caller); !answer) return answer;
  const int how = exists ? O_TRUNC : O_CREAT | O_EXCL;
  const UniqueFd file = caller.open(name, O_WRONLY | O_NONBLOCK | how, exists ? 0 : 0600);
  if (!file) return failedCall(errno, "cannot open the file " + name);
  return writeText(file, name, text);
}

}  // namespace emulator
