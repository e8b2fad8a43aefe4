// SPDX-License-Identifier: Apache-2.0
#include "qxtools/UnixUtils.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <cwchar>

namespace UnixUtils {
namespace {

constexpr std::size_t kNotConvertible = static_cast<std::size_t>(-1);

bool IsDirectory(const char* path) {
  struct stat status;
  return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

NarrowText ConvertToANSI(const wchar_t* text) noexcept {
  if (text == nullptr) return nullptr;
  std::mbstate_t state{};
  const wchar_t* source = text;
  const std::size_t length = std::wcsrtombs(nullptr, &source, 0, &state);
  if (length == kNotConvertible) return nullptr;
  NarrowText narrow(static_cast<char*>(std::malloc(length + 1)));
  if (narrow == nullptr) return nullptr;
  state = std::mbstate_t{};
  source = text;
  if (std::wcsrtombs(narrow.get(), &source, length + 1, &state) != length) return nullptr;
  return narrow;
}

WideText ConvertToWide(const char* text) noexcept {
  if (text == nullptr) return nullptr;
  std::mbstate_t state{};
  const char* source = text;
  const std::size_t length = std::mbsrtowcs(nullptr, &source, 0, &state);
  if (length == kNotConvertible) return nullptr;
  WideText wide(static_cast<wchar_t*>(std::malloc((length + 1) * sizeof(wchar_t))));
  if (wide == nullptr) return nullptr;
  state = std::mbstate_t{};
  source = text;
  if (std::mbsrtowcs(wide.get(), &source, length + 1, &state) != length) return nullptr;
  return wide;
}

NarrowText ValidatePathAndConvertToANSI(const wchar_t* path) noexcept {
  if (path == nullptr || path[0] != L'/') return nullptr;
  NarrowText narrow = ConvertToANSI(path);
  if (narrow != nullptr && std::strlen(narrow.get()) >= PATH_MAX) return nullptr;
  return narrow;
}

int CreateDirectory(const char* path, mode_t mode) noexcept {
  if (path == nullptr) return EINVAL;
  if (mkdir(path, mode) == 0) return 0;
  const int error = errno;
  return error == EEXIST && IsDirectory(path) ? 0 : error;
}

int RemoveDirectory(const char* path) noexcept {
  if (path == nullptr) return EINVAL;
  return rmdir(path) == 0 ? 0 : errno;
}

std::uint64_t GetBlockDeviceNumber(const wchar_t* name) noexcept {
  return GetBlockDeviceNumber(ConvertToANSI(name).get());
}

std::uint64_t GetBlockDeviceNumber(const char* name) noexcept {
  struct stat status;
  if (name == nullptr || stat(name, &status) != 0 || !S_ISBLK(status.st_mode)) return 0;
  return status.st_rdev;
}

}  // namespace UnixUtils
