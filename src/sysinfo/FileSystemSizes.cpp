// SPDX-License-Identifier: Apache-2.0
//
// Sizes and kind of a mounted file system.
#include <sys/stat.h>
#include <sys/vfs.h>
#include <syslog.h>

#include <cerrno>

#include "sysinfo/LinuxSystemInfo.h"

namespace mirelsnapsdk_linuxcomputer {
namespace {

constexpr unsigned int kCannotExamine = 16;

// `statfs`, its failure logged; errno stays.
bool readSizes(const std::string& mountPoint, struct statfs& sizes) {
  if (statfs(mountPoint.c_str(), &sizes) == 0) return true;
  const int error = errno;
  syslog(LOG_ERR, "Unable to stat the mountpoint: %s, errno: %d.\n", mountPoint.c_str(), error);
  errno = error;
  return false;
}

}  // namespace

unsigned int LinuxSystemInfo::GetMountSizeDetails(const std::string& mountPoint, std::uint64_t* availKB,
                                                  std::uint64_t* usedKB, std::uint32_t* blockSize,
                                                  std::uint64_t* fsType) {
  struct statfs statbuf;
  if (!readSizes(mountPoint, statbuf)) return kCannotExamine;
  syslog(LOG_DEBUG, "statbuf.f_blocks: %lu, statbuf.f_bfree: %lu.\n", statbuf.f_blocks, statbuf.f_bfree);

  const auto bytesPerBlock = static_cast<std::uint64_t>(statbuf.f_bsize);
  const std::uint64_t totalKB = (statbuf.f_blocks * bytesPerBlock) >> 10;
  *availKB = (statbuf.f_bfree * bytesPerBlock) >> 10;  // the superuser's reserve included, not f_bavail
  *usedKB = totalKB - *availKB;
  *blockSize = static_cast<std::uint32_t>(statbuf.f_bsize);
  *fsType = static_cast<std::uint64_t>(statbuf.f_type);

  syslog(LOG_DEBUG, "BlockSize: %d.\n", static_cast<int>(*blockSize));
  syslog(LOG_DEBUG, "TotalSize: %lu, AvailSize: %lu, usedsize: %lu.\n", totalKB, *availKB, *usedKB);
  return 0;
}

unsigned int LinuxSystemInfo::GetMountFSType(const std::string& mountPoint, std::uint64_t* fsType) {
  struct statfs statbuf;
  if (!readSizes(mountPoint, statbuf)) return kCannotExamine;
  *fsType = static_cast<std::uint64_t>(statbuf.f_type);
  return 0;
}

unsigned int LinuxSystemInfo::IsValidMountPoint(std::string& path, const std::string& /*ignored: the contract*/) {
  struct stat file;
  return stat(path.c_str(), &file) == 0 && S_ISDIR(file.st_mode) ? 0 : kCannotExamine;
}

}  // namespace mirelsnapsdk_linuxcomputer
