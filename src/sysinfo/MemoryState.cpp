// SPDX-License-Identifier: Apache-2.0
//
// The machine's memory, as /proc/meminfo tells it.
#include <syslog.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "base/Causes.h"
#include "base/Handle.h"
#include "sysinfo/LinuxSystemInfo.h"

namespace mirelsnapsdk_linuxcomputer {
namespace {

constexpr char kMemInfoPath[] = "/proc/meminfo";
constexpr char kDigits[] = "0123456789";

constexpr char kMemTotal[] = "MemTotal";
constexpr char kMemFree[] = "MemFree";
constexpr char kHighFree[] = "HighFree";
constexpr char kLowFree[] = "LowFree";
constexpr char kCached[] = "Cached";
constexpr char kAnonPages[] = "AnonPages";

// A longer line arrives in pieces of one byte less, each taken for a line.
constexpr int kLineBuffer = 128;

constexpr int kCannotOpen = 5;
constexpr unsigned int kImproperArgument = 3;

// All before the first ':'; the whole line, its end included, when there is none.
std::string keyOf(const std::string& line) { return line.substr(0, line.find(':')); }

// The number that begins at the line's first digit (a digit of the key counts too).
std::uint64_t valueOf(const std::string& line) {
  const std::size_t first = line.find_first_of(kDigits);
  const std::size_t last = line.find_last_of(kDigits);
  // Without a digit `first` is npos and substr throws std::out_of_range. That is the contract.
  const std::string digits = line.substr(first, last - first + 1);
  return static_cast<std::uint64_t>(std::strtol(digits.c_str(), nullptr, 10));
}

}  // namespace

int LinuxSystemInfo::InitializeSystemMemoryState() {
  UniqueFile file(std::fopen(kMemInfoPath, "rte"));
  if (!file) {
    noteFailedCall("open", kMemInfoPath, errno);
    syslog(LOG_ERR, "Unable to open the %s file, errno : %d.\n", kMemInfoPath, errno);
    return kCannotOpen;
  }
  try {
    char buffer[kLineBuffer];
    while (std::fgets(buffer, sizeof buffer, file.get()) != nullptr) readMemoryLine(buffer);
  } catch (const std::out_of_range&) {
    // A line without a digit leaves the file open. That is the contract (docs/left-allocated.md counts its cost).
    static_cast<void>(file.release());
    throw;
  }
  return 0;
}

void LinuxSystemInfo::readMemoryLine(const std::string& line) {
  const std::uint64_t value = valueOf(line);
  memInfo[keyOf(line)] = value;
}

unsigned int LinuxSystemInfo::GetSpecificSystemMemoryState(_sysMemStateInfo* out) {
  if (out == nullptr) {
    syslog(LOG_ERR, "Improper argument passed.\n");
    return kImproperArgument;
  }
  // A key that is not there is added with 0.
  out->MemTotal = memInfo[kMemTotal];
  out->MemFree = memInfo[kMemFree];
  out->HighFree = memInfo[kHighFree];
  out->LowFree = memInfo[kLowFree];
  out->Cached = memInfo[kCached];
  out->AnonPages = memInfo[kAnonPages];
  return 0;
}

std::uint64_t LinuxSystemInfo::GetSpecificSystemMemoryDetail(const std::string& key) {
  const auto found = memInfo.find(key);
  return found == memInfo.end() ? 0 : found->second;
}

}  // namespace mirelsnapsdk_linuxcomputer
