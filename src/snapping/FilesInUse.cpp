// SPDX-License-Identifier: Apache-2.0
#include "snapping/FilesInUse.h"

#include <sys/stat.h>

#include <algorithm>
#include <list>
#include <utility>

#include "base/Process.h"
#include "driver/DriverProtocol.h"
#include "driver/RelocationMappings.h"
#include "driver/VolumeRecords.h"
#include "reloc/RelocationFileRemoval.h"

namespace {

std::optional<FileIdentity> fileBehind(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return std::nullopt;
  return FileIdentity{status.st_dev, status.st_ino};
}

}  // namespace

UsedFile::UsedFile(std::string path)
    : mPath(std::move(path)), mEntry(relocFileEntry(mPath)), mFile(fileBehind(mPath)) {}

bool UsedFile::isAt(const std::string& path) const { return isAt(path, fileBehind(path)); }

bool UsedFile::isAt(const std::string& path, const std::optional<FileIdentity>& file) const {
  const bool cut = mPath.size() >= kDriverPathSize - 1;
  const bool sameName = !mEntry.empty() && relocFileEntry(path) == mEntry;
  return path == mPath || sameName || (mFile && file == mFile) || (cut && path.starts_with(mPath));
}

bool isFileInUse(SnapDriverInterface& driver, const std::string& path, const std::optional<FileIdentity>& file,
                 pid_t except) {
  // A snapshot is taken of a mapped volume: whoever is in neither listing had nothing before the first one.
  std::list<RelocFileMappingInformation> mappings;
  std::list<SnappedVolumeInformation> snapped;
  if (!readAllMappings(mappings) || driver.GetSnappedVolumeDetails(snapped) != 0) return true;
  const auto holds = [&](int owner, const std::string& name) {
    return owner != except && !processIsGone(owner) && UsedFile(name).isAt(path, file);
  };
  return std::any_of(mappings.begin(), mappings.end(),
                     [&](const RelocFileMappingInformation& mapping) {
                       return holds(mapping.getAppPid(), mapping.getRelocFileName());
                     }) ||
         std::any_of(snapped.begin(), snapped.end(), [&](const SnappedVolumeInformation& volume) {
           return holds(volume.getAppPid(), WStringToString(volume.getRelocFileName()));
         });
}
