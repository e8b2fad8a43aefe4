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

// Converts with `step`, one of the C library's two: first to learn the length, then into memory of that length.
template <class To, class From>
std::unique_ptr<To[], FreeMemory> Convert(const From* text,
                                          std::size_t (*step)(To*, const From**, std::size_t, std::mbstate_t*)) {
  if (text == nullptr) return nullptr;
  std::mbstate_t state{};
  const From* source = text;
  const std::size_t length = step(nullptr, &source, 0, &state);
  if (length == kNotConvertible) return nullptr;
  std::unique_ptr<To[], FreeMemory> converted(static_cast<To*>(std::malloc((length + 1) * sizeof(To))));
  if (converted == nullptr) return nullptr;
  state = std::mbstate_t{};
  source = text;
  if (step(converted.get(), &source, length + 1, &state) != length) return nullptr;
  return converted;
}

}  // namespace

NarrowText ConvertToANSI(const wchar_t* text) noexcept { return Convert<char, wchar_t>(text, &std::wcsrtombs); }

WideText ConvertToWide(const char* text) noexcept { return Convert<wchar_t, char>(text, &std::mbsrtowcs); }

NarrowText ValidatePathAndConvertToANSI(const wchar_t* path) noexcept {
  if (path == nullptr || path[0] != L'/') return nullptr;
  NarrowText narrow = ConvertToANSI(path);
  if (narrow != nullptr && std::strlen(narrow.get()) >= PATH_MAX) return nullptr;
  return narrow;
}

bool IsDirectory(const char* path) noexcept {
  struct stat status;
  return stat(path, &status) == 0 && S_ISDIR(status.st_mode);
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
