// SPDX-License-Identifier: Apache-2.0
//
// What every fuzz program starts with: the tests' private world, a silent system log, and no way to remove a file.
#pragma once

#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdint>
#include <cstdio>
#include <string>

#include "World.h"

// Names that come from the fuzzer must not remove anything.
#define MIRELSNAP_FUZZ_KEEPS_FILES                           \
  extern "C" int unlink(const char*) noexcept { return -1; } \
  extern "C" int rmdir(const char*) noexcept { return -1; }  \
  extern "C" int remove(const char*) noexcept { return -1; }

inline int layFuzzWorld() {
  test::layPrivateWorld();
  setlogmask(LOG_MASK(LOG_EMERG));
  std::setlocale(LC_ALL, "C.UTF-8");
  return 0;
}
