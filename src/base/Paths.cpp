// SPDX-License-Identifier: Apache-2.0
#include "base/Paths.h"

#include <algorithm>

bool liesWithin(std::string_view path, std::string_view folder) noexcept {
  if (folder == "/") return path.starts_with('/');
  return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

std::size_t depthOf(std::string_view path) noexcept {
  return path == "/" ? 0 : static_cast<std::size_t>(std::count(path.begin(), path.end(), '/'));
}

std::string joined(std::string_view base, std::string_view path) {
  while (base.ends_with('/')) base.remove_suffix(1);
  while (path.starts_with('/')) path.remove_prefix(1);
  std::string result(base);
  if (!path.empty()) result.append("/").append(path);
  return result.empty() ? "/" : result;
}

std::string_view lastPart(std::string_view path) noexcept { return path.substr(path.rfind('/') + 1); }

std::string_view folderOf(std::string_view path) noexcept {
  return path.substr(0, std::max<std::size_t>(path.rfind('/'), 1));
}
