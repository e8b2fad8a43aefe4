// SPDX-License-Identifier: Apache-2.0
//
// What every fuzz program starts with: the tests' private world and a silent system log.
#pragma once

#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdint>
#include <cstdio>
#include <string>

#include "World.h"

inline int layFuzzWorld() {
  test::layPrivateWorld();
  setlogmask(LOG_MASK(LOG_EMERG));
  std::setlocale(LC_ALL, "C.UTF-8");
  return 0;
}
