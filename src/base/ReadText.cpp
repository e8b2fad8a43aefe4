// SPDX-License-Identifier: Apache-2.0
#include "base/ReadText.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "base/Handle.h"

std::optional<std::string> readText(const std::string& path, int flags) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | flags));
  if (!file) return std::nullopt;
  std::string text;
  std::array<char, 4096> part{};
  for (;;) {
    const ssize_t length = read(file.get(), part.data(), part.size());
    if (length == 0) return text;
    if (length > 0) text.append(part.data(), static_cast<std::size_t>(length));
    if (length < 0 && errno != EINTR) return std::nullopt;
  }
}

std::string readLine(const std::string& path) {
  const std::string text = readText(path).value_or(std::string());
  return text.substr(0, text.find('\n'));
}
