// SPDX-License-Identifier: Apache-2.0
#include "base/FileIdentity.h"

#include <sys/stat.h>

std::optional<FileIdentity> identityOf(int descriptor) noexcept {
  struct stat status {};
  if (fstat(descriptor, &status) != 0) return std::nullopt;
  return FileIdentity{status.st_dev, status.st_ino};
}
