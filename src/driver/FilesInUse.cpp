// SPDX-License-Identifier: Apache-2.0
#include "driver/FilesInUse.h"

#include <sys/stat.h>

#include <algorithm>
#include <list>

#include "base/Process.h"
#include "driver/DriverProtocol.h"
#include "driver/VolumeRecords.h"
#include "reloc/RelocationFileRemoval.h"

namespace {

std::optional<std::pair<dev_t, ino_t>> fileBehind(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return std::nullopt;
  return std::pair(status.st_dev, status.st_ino);
}

bool holds(int owner, const std::string& file, const std::string& path, pid_t except) {
  return owner != except && !processIsGone(owner) && UsedFile(file).isAt(path);
}

}  // namespace

UsedFile::UsedFile(std::string path)
    : mPath(std::move(path)), mEntry(relocFileEntry(mPath)), mFile(fileBehind(mPath)) {}

bool UsedFile::isAt(const std::string& path) const {
  const bool cut = mPath.size() >= kDriverPathSize - 1;
  const bool sameName = !mEntry.empty() && relocFileEntry(path) == mEntry;
  return path == mPath || sameName || (mFile && fileBehind(path) == mFile) || (cut && path.starts_with(mPath));
}

bool isFileInUse(SnapDriverInterface& driver, const std::string& path, pid_t except) {
  // A snapshot is taken of a mapped volume: whoever is in neither listing had nothing before the first one.
  std::list<RelocFileMappingInformation> mappings;
  std::list<SnappedVolumeInformation> snapped;
  if (driver.GetRelocFileMapping(mappings) != 0 || driver.GetSnappedVolumeDetails(snapped) != 0) return true;
  return std::any_of(mappings.begin(), mappings.end(),
                     [&](const RelocFileMappingInformation& mapping) {
                       return holds(mapping.getAppPid(), mapping.getRelocFileName(), path, except);
                     }) ||
         std::any_of(snapped.begin(), snapped.end(), [&](const SnappedVolumeInformation& volume) {
           return holds(volume.getAppPid(), WStringToString(volume.getRelocFileName()), path, except);
         });
}
