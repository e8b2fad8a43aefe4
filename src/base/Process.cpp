// SPDX-License-Identifier: Apache-2.0
#include "base/Process.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "base/Handle.h"

namespace {

// The beginning of /proc/ID/stat, all that is of interest and more; empty when it cannot be read.
using StatText = std::array<char, 1024>;

StatText readStat(int id) noexcept {
  StatText text{};
  std::array<char, 32> path{};
  std::snprintf(path.data(), path.size(), "/proc/%d/stat", id);
  const UniqueFd file(open(path.data(), O_RDONLY | O_CLOEXEC));
  if (!file) return text;
  ssize_t length = 0;
  do {
    length = read(file.get(), text.data(), text.size() - 1);
  } while (length < 0 && errno == EINTR);
  text[length < 0 ? 0 : static_cast<std::size_t>(length)] = '\0';
  return text;
}

bool isZombie(int id) noexcept {
  // "12 (name) Z ...": the name may hold anything, a ")" as well. 16 fields lie between the state and the threads.
  const StatText text = readStat(id);
  const char* const nameEnd = std::strrchr(text.data(), ')');
  char state = '\0';
  long threads = 0;
  if (nameEnd == nullptr ||
      std::sscanf(nameEnd, ") %c %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %ld", &state,
                  &threads) != 2) {
    return false;
  }
  return (state == 'Z' || state == 'X') && threads <= 1;
}

}  // namespace

bool processIsGone(int id) noexcept {
  if (id <= 0) return false;
  return kill(id, 0) == -1 || isZombie(id);
}
