// SPDX-License-Identifier: Apache-2.0
#include "Hooks.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

extern "C" int fstat(int fd, struct stat* status) noexcept {
  const int result = fstatat(fd, "", status, AT_EMPTY_PATH);
  if (result != 0 || test::fstatFailure == 0 || !S_ISREG(status->st_mode)) return result;
  errno = test::fstatFailure;
  return -1;
}

extern "C" char* realpath(const char* path, char* resolved) noexcept {
  char* name = *path == '\0' && test::realpathOfNothing ? strdup(test::realpathOfNothing->c_str())
                                                        : canonicalize_file_name(path);
  if (name == nullptr || resolved == nullptr) return name;
  std::strcpy(resolved, name);
  std::free(name);
  return resolved;
}
