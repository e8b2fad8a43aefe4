// SPDX-License-Identifier: Apache-2.0
#include "reloc/RelocationFileRemoval.h"

#include <syslog.h>

#include <cerrno>
#include <utility>

#include "base/Causes.h"

std::string relocFileDirectory(const std::string& path) { return path.substr(0, path.rfind('/')); }

std::string relocFileEntry(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(slash + 1);
}

DoomedRelocFile::DoomedRelocFile(std::string path)
    : mPath(std::move(path)), mDirectory(relocFileDirectory(mPath)), mFile(mDirectory.open(relocFileEntry(mPath))) {
  if (!mFile) mError = errno;
}

void DoomedRelocFile::remove() const {
  errno = mError;
  if (mFile && mDirectory.remove(relocFileEntry(mPath), identity())) {
    syslog(LOG_INFO, "RelocFile %s deleted.\n", mPath.c_str());
  } else {
    if (!mPath.empty()) noteFailedCall("unlink", mPath.c_str(), errno);
    syslog(LOG_INFO, "RelocFile %s deletion failed, errno: %d.\n", mPath.c_str(), errno);
  }
  mDirectory.removeIfEmpty();
}
